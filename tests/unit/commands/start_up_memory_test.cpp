#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "commands/exec/reaper.h"
#include "commands/system/power_button.h"
#include "core/command_table.h"
#include "core/start_up.h"
#include "platform/linux/linux_platform.h"
#include "platform/platform.h"
#include "tests/fakes/allocation_free_services.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"

namespace corvane {
namespace {

enum Status { served = 0, documented = 1, wrong = 2, servedWithoutFailure = 3 };

const std::string ping = "{\"execute\":\"guest-ping\"}\n";
const std::string pong = "{\"return\":{}}\n";

/// The host of an agent that starts: asks twice, and ends the process with its verdict.
class Examiner final : public PiecewiseDevice {
 public:
    Examiner() { pieces = {ping, ping}; }

    ssize_t receive(int descriptor, std::span<char> buffer, int patience) override {
        if (next == 1) {
            // The failure may have hit the first of the requests; the other one is answered.
            failed_ = stopFailingAllocations() == 0;
            sent.clear();
        } else if (next == pieces.size()) {
            ::_exit(sent != pong ? wrong : failed_ ? served : servedWithoutFailure);
        }
        return PiecewiseDevice::receive(descriptor, buffer, patience);
    }

 private:
    bool failed_ = false;
};

TEST(StartUpWithoutMemory, EndsWithItsStatusOrServes) {
    FakePlatform fakes;
    QuietLog log;
    Examiner device;
    Platform services = platformWith({.systemLog = &log, .channelDevice = &device});
    const PlatformScope scope(services);
    int status = served;
    int ends = 0;
    int serves = 0;
    for (long allocation = 0; status != servedWithoutFailure; ++allocation) {
        status = exitStatusOf([allocation] {
            useCommandTable(allCommands);
            failAllocations(allocation, 1);
            runAgent({listenForPowerButton, reapChildren});
        });
        ends += status == documented ? 1 : 0;
        serves += status == served ? 1 : 0;
        ASSERT_TRUE(status == served || status == documented || status == servedWithoutFailure)
            << "allocation " << allocation << ": " << status;
    }
    EXPECT_GT(ends, 0) << "without the channel, say, there is no agent";
    EXPECT_GT(serves, 0) << "it does without its power button, say";
}

TEST(PlatformWithoutMemory, IsMadeOrNot) {
    const long live = liveAllocations();
    long count = 0;
    for (bool failed = true; failed; ++count) {
        failAllocations(count, 1);
        try {
            LinuxPlatform made;
            failed = stopFailingAllocations() == 0;
        } catch (const std::bad_alloc&) {
            failed = true;
        }
    }
    EXPECT_GT(count, 3);
    EXPECT_EQ(liveAllocations(), live);
}

}  // namespace
}  // namespace corvane
