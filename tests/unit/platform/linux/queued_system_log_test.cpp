// The queue before the logs of the system, as the platform puts them together.

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/linux_platform.h"
#include "platform/linux/queued_log.h"
#include "platform/linux/syslog_log.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/platform/linux/private_mounts.h"

namespace corvane {
namespace {

/// With the logs of the system, whose daemons a private /run and /dev leave to the test.
class QueuedSystemLog : public testing::Test {
 protected:
    void SetUp() override {
        if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    /// The sockets of both daemons.
    struct Daemons {
        Daemons() {
            ::mkdir("/run/systemd", 0755);
            ::mkdir("/run/systemd/journal", 0755);
            journal = bindDatagramSocket("/run/systemd/journal/socket");
            syslog = bindDatagramSocket("/dev/log");
        }
        [[nodiscard]] int used() const {
            return hasDatagram(journal.borrow()) ? journal.borrow() : syslog.borrow();
        }

        DescriptorGuard journal;
        DescriptorGuard syslog;
    };

    /// Writes far more than a daemon's socket and the queue hold, then reads what the socket has
    /// until the loss is told.
    static std::string outlastSilence(SystemLog& log, const Daemons& daemons) {
        log.createCategories("corvane");
        const std::string text(1000, 'x');
        for (int count = 0; count < 10000; ++count) {
            log.write(LogCategory::status, text);
        }
        const int socket = daemons.used();
        while (receiveDatagram(socket).bytes.find("Log entries lost: ") == std::string::npos) {
        }
        return {};
    }
};

TEST_F(QueuedSystemLog, ADaemonThatDoesNotReadHoldsNothingUp) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, [] {
                  const Daemons daemons;
                  LinuxPlatform linuxPlatform;
                  return outlastSilence(linuxPlatform.services().systemLog, daemons);
              }));
}

TEST_F(QueuedSystemLog, ASyslogDaemonThatDoesNotReadHoldsNothingUp) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, [] {
                  const Daemons daemons;
                  QueuedLog log(std::make_unique<SyslogLog>());
                  return outlastSilence(log, daemons);
              }));
}

TEST_F(QueuedSystemLog, APlatformsLastEntryArrivesWhenTheProcessExits) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  const Daemons daemons;
                  const int status = exitStatusOf([] {
                      static LinuxPlatform linuxPlatform;
                      std::atexit([] { linuxPlatform.finishLog(); });
                      SystemLog& log = linuxPlatform.services().systemLog;
                      log.createCategories("corvane");
                      log.write(LogCategory::status, "the last words\n");
                      std::exit(1);
                  });
                  const int socket = daemons.used();
                  if (status != 1 || !hasDatagram(socket)) {
                      return "status " + std::to_string(status) + " or no entry";
                  }
                  const std::string entry = receiveDatagram(socket).bytes;
                  return entry.find("the last words\n") == std::string::npos ? entry : "";
              }));
}

}  // namespace
}  // namespace corvane
