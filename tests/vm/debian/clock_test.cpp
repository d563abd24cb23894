#include <chrono>
#include <cstdint>
#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

constexpr std::uint64_t second = 1'000'000'000;

/// Tests that put the guest's clock wrong. Afterwards it is as right as before.
class ClockOfTheGuest : public DebianTest {
 protected:
    void TearDown() override {
        HostClient host = synchronisedHost();
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        ExecClient(host).ask(
            "guest-set-time",
            {{"time", std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()}});
        DebianTest::TearDown();
    }

    std::uint64_t shellsTime() { return std::stoull(shell().check("date +%s%N")); }
    static std::uint64_t agentsTime(HostClient& host) {
        return answerTo(host, "guest-get-time").at("return").at("time").to_number<std::uint64_t>();
    }
};

TEST_F(ClockOfTheGuest, IsSetToTheNanosecondAndRunsOnFromThere) {
    HostClient host = synchronisedHost();
    constexpr std::uint64_t start = 1700000000'123456789;
    EXPECT_EQ(parse(host.request(
                  R"({"execute":"guest-set-time","arguments":{"time":1700000000123456789}})")),
              emptyReturn);
    const std::uint64_t seen = shellsTime();
    EXPECT_GE(seen, start);
    EXPECT_LT(seen, start + 100 * second);
}

TEST_F(ClockOfTheGuest, IsToldAsTheGuestSeesIt) {
    HostClient host = synchronisedHost();
    const std::uint64_t before = shellsTime();
    const std::uint64_t told = agentsTime(host);
    const std::uint64_t after = shellsTime();
    EXPECT_LE(before, told);
    EXPECT_LE(told, after);
}

TEST_F(ClockOfTheGuest, MayBeSetForwardByYears) {
    HostClient host = synchronisedHost();
    constexpr std::uint64_t start = 2000000000 * second;  // May 2033
    ExecClient(host).ask("guest-set-time", {{"time", start}});
    EXPECT_GE(agentsTime(host), start);
    EXPECT_EQ(shell().check("date -u +%Y-%m"), "2033-05");
}

TEST_F(ClockOfTheGuest, IsLeftAloneWhenThereIsNoTimeInTheRequest) {
    HostClient host = synchronisedHost();
    const std::uint64_t before = shellsTime();
    EXPECT_EQ(answerTo(host, "guest-set-time"),
              errorResponse("GenericError", "time is not a number"));
    EXPECT_GE(agentsTime(host), before);
    EXPECT_LT(agentsTime(host), before + 100 * second);
}

}  // namespace
}  // namespace corvane::vm
