#include "commands/system/guest_time.h"

#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/commands/system/system_fixture.h"

namespace corvane {
namespace {

using Split = std::pair<std::time_t, long>;  // seconds, nanoseconds

class GuestTime : public SystemCommandTest {
 protected:
    /// What the clock is set to when "time" has that JSON text.
    Split splitOf(const std::string& time) {
        platform_.clock.attempts.clear();
        EXPECT_EQ(answerTo(handleGuestSetTime, R"({"time":)" + time + "}"), success) << time;
        if (platform_.clock.attempts.size() != 1) {
            ADD_FAILURE() << time << ": set " << platform_.clock.attempts.size() << " times";
            return {};
        }
        const std::timespec set = platform_.clock.attempts.front();
        return {set.tv_sec, set.tv_nsec};
    }

    std::string timeAt(std::time_t seconds, long nanoseconds) {
        platform_.clock.now = std::timespec{seconds, nanoseconds};
        return writeJson(handleGuestGetTime());
    }
};

TEST_F(GuestTime, IsSplitIntoSecondsAndNanoseconds) {
    EXPECT_EQ(splitOf("1700000000123456789"), Split(1700000000, 123456789));
    EXPECT_EQ(splitOf("0"), Split(0, 0));
    EXPECT_EQ(splitOf("1"), Split(0, 1));
    EXPECT_EQ(splitOf("999999999"), Split(0, 999999999));
    EXPECT_EQ(splitOf("1000000000"), Split(1, 0));
    EXPECT_EQ(splitOf("1000000001"), Split(1, 1));
    EXPECT_EQ(splitOf("9223372036854775807"), Split(9223372036, 854775807));
    EXPECT_EQ(splitOf("9223372036854775808"), Split(9223372036, 854775808));
    EXPECT_EQ(splitOf("18446744073709551615"), Split(18446744073, 709551615));
}

TEST_F(GuestTime, IsReadAsUnsignedSixtyFourBits) {
    EXPECT_EQ(splitOf("true"), Split(0, 1));
    EXPECT_EQ(splitOf("false"), Split(0, 0));
    EXPECT_EQ(splitOf("-1"), Split(18446744073, 709551615));
    EXPECT_EQ(splitOf("-1000000000"), Split(18446744072, 709551616));
    EXPECT_EQ(splitOf("-18446744073709551615"), Split(0, 1));
    EXPECT_EQ(splitOf("18446744073709551616"), Split(0, 0)) << "2^64";
    EXPECT_EQ(splitOf("18446744075409551617"), Split(1, 700000001)) << "2^64 + 1700000001";
    EXPECT_EQ(splitOf("1.7e18"), Split(1700000000, 0));
    EXPECT_EQ(splitOf("1700000000123456789.99"), Split(1700000000, 123456789));
    EXPECT_EQ(splitOf("0.9"), Split(0, 0));
    EXPECT_EQ(splitOf("-0.5"), Split(0, 0));
    EXPECT_EQ(splitOf("1e400"), Split(0, 0));
    EXPECT_EQ(splitOf("1e30"), Split(5076944270, 305263616));
}

TEST_F(GuestTime, ThatIsAbsentIsRefusedOnBothChannels) {
    for (const char* arguments : {"null", "{}", R"({"Time":5})", R"({"other":5})"}) {
        EXPECT_EQ(
            answerTo(handleGuestSetTime, arguments, "handleGuestSetTime: time is not a number\n"),
            error("time is not a number"))
            << arguments;
    }
    EXPECT_TRUE(platform_.clock.attempts.empty());
}

TEST_F(GuestTime, OfAnotherTypeIsRefusedOnBothChannels) {
    for (const char* time : {R"("1700000000")", R"("")", "null", "[]", "[5]", "{}"}) {
        EXPECT_EQ(answerTo(handleGuestSetTime, std::string(R"({"time":)") + time + "}",
                           "handleGuestSetTime: time is not a number\n"),
                  error("time is not a number"))
            << time;
    }
    EXPECT_TRUE(platform_.clock.attempts.empty());
}

TEST_F(GuestTime, ThatTheGuestRefusesIsToldQuietlyAndLeavesTheClock) {
    platform_.clock.now = std::timespec{1234, 5678};
    platform_.clock.accepts = false;
    EXPECT_EQ(answerTo(handleGuestSetTime, R"({"time":1700000000123456789})"),
              error("failed to set time"));
    EXPECT_EQ(platform_.clock.attempts.size(), 1U);
    EXPECT_EQ(writeJson(handleGuestGetTime()), R"({"return":{"time":1234000005678}})");
}

TEST_F(GuestTime, IsAnsweredInNanoseconds) {
    EXPECT_EQ(timeAt(1700000000, 123456789), R"({"return":{"time":1700000000123456789}})");
    EXPECT_EQ(timeAt(0, 0), R"({"return":{"time":0}})");
    EXPECT_EQ(timeAt(0, 999999999), R"({"return":{"time":999999999}})");
    EXPECT_EQ(timeAt(9223372036, 854775807), R"({"return":{"time":9223372036854775807}})");
    EXPECT_EQ(timeAt(18446744073, 709551615), R"({"return":{"time":18446744073709551615}})");
}

TEST_F(GuestTime, OutsideSixtyFourBitsWraps) {
    EXPECT_EQ(timeAt(18446744073, 709551616), R"({"return":{"time":0}})");
    EXPECT_EQ(timeAt(-1, 0), R"({"return":{"time":18446744072709551616}})");
    EXPECT_EQ(timeAt(-1, 999999999), R"({"return":{"time":18446744073709551615}})");
}

TEST_F(GuestTime, ThatCannotBeReadIsToldQuietly) {
    platform_.clock.now = std::nullopt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(writeJson(handleGuestGetTime()), error("failed to get time"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(GuestTime, ThatWasSetIsAnswered) {
    for (const char* time : {"0", "1", "1700000000123456789", "9223372036854775807",
                             "9223372036854775808", "18446744073709551615"}) {
        EXPECT_EQ(answerToLine(R"({"execute":"guest-set-time","arguments":{"time":)" +
                               std::string(time) + "}}"),
                  success);
        EXPECT_EQ(answerToLine(R"({"execute":"guest-get-time"})"),
                  R"({"return":{"time":)" + std::string(time) + "}}");
    }
}

TEST_F(GuestTime, LinesOfAHostAreAnswered) {
    EXPECT_EQ(answerToLine(R"({"execute":"guest-get-time","arguments":{"x":1}})"),
              R"({"return":{"time":0}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-get-time","arguments":[]})"),
              R"({"error":{"class":"GenericError","desc":"arguments is not a dictionary"}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-set-time"})",
                           "handleGuestSetTime: time is not a number\n"),
              R"({"error":{"class":"GenericError","desc":"time is not a number"}})");
    platform_.clock.accepts = false;
    EXPECT_EQ(answerToLine(R"({"execute":"guest-set-time","arguments":{"time":-1}})"),
              R"({"error":{"class":"GenericError","desc":"failed to set time"}})");
    EXPECT_EQ(platform_.clock.attempts.size(), 1U);
}

}  // namespace
}  // namespace corvane
