#include "platform/linux/syslog_log.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/private_mounts.h"

namespace corvane {
namespace {

/// Runs in a child whose /dev holds nothing but the log's socket.
class SyslogTest : public testing::Test {
 protected:
    void SetUp() override {
        if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    /// Writes a text and returns what is wrong with what arrives: the priority, and the text after
    /// the identifier.
    static std::string check(LogCategory category, const std::string& text,
                             const std::string& priority, const std::string& expected) {
        return withPrivateMounts({"/dev"}, [&]() -> std::string {
            const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
            SyslogLog log;
            log.createCategories("corvane");
            log.write(category, text);
            const std::string entry = receiveDatagram(daemon.borrow()).bytes;
            const std::string identifier = " corvane[" + std::to_string(::getpid()) + "]: ";
            const std::size_t start = entry.find(identifier);
            if (!entry.starts_with(priority) || start == std::string::npos) {
                return "unexpected head: " + entry.substr(0, 100);
            }
            const std::string arrived = entry.substr(start + identifier.size());
            return arrived == expected ? "" : "unexpected text: " + arrived.substr(0, 100);
        });
    }
};

// A priority is facility * 8 + level: 3 * 8 + 3 and 3 * 8 + 6.

TEST_F(SyslogTest, StatusIsAnErrorOfTheDaemonFacility) {
    EXPECT_EQ("", check(LogCategory::status, "text 100%s\n", "<27>", "text 100%s\n"));
}

TEST_F(SyslogTest, TransactionsAreInformation) {
    EXPECT_EQ("", check(LogCategory::transactions, "text", "<30>", "text"));
}

TEST_F(SyslogTest, NewlinesInsideATextStay) {
    EXPECT_EQ("", check(LogCategory::status, "one\ntwo\n", "<27>", "one\ntwo\n"));
}

TEST_F(SyslogTest, ANulIsWrittenOutAndHidesNothing) {
    EXPECT_EQ("", check(LogCategory::status, std::string("one\0two\n", 8), "<27>", "one#000two\n"));
}

TEST_F(SyslogTest, ATextThatIsTooLongIsCutAndMarked) {
    const std::string expected = std::string(SyslogLog::longestEntry - 4, 'x') + "...\n";
    EXPECT_EQ("", check(LogCategory::status, std::string(16U << 20U, 'x'), "<27>", expected));
}

TEST_F(SyslogTest, TheLongestTextIsWhole) {
    const std::string text(SyslogLog::longestEntry, 'x');
    EXPECT_EQ("", check(LogCategory::status, text, "<27>", text));
}

TEST_F(SyslogTest, RecordsWhileThereIsASocketAndLosesEntriesWithoutOne) {
    EXPECT_EQ(
        "", withPrivateMounts({"/dev"}, []() -> std::string {
            SyslogLog log;
            log.createCategories("corvane");
            if (log.records(LogCategory::status) || log.records(LogCategory::transactions)) {
                return "records without a socket";
            }
            log.write(LogCategory::status, "lost\n");
            const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
            if (!log.records(LogCategory::status) || !log.records(LogCategory::transactions)) {
                return "does not record with a socket";
            }
            log.write(LogCategory::status, "found\n");
            const std::string entry = receiveDatagram(daemon.borrow()).bytes;
            return entry.ends_with("found\n") ? "" : "unexpected: " + entry;
        }));
}

}  // namespace
}  // namespace corvane
