#include "platform/linux/linux_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/forbidden_call.h"

namespace corvane {
namespace {

// The clock of the machine that the tests run on is never set: each attempt is made in a child
// whose system calls are refused.

std::int64_t nanosecondsOf(const std::timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t nanosecondsNow() {
    std::timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanosecondsOf(now);
}

TEST(LinuxClock, ReadsTheRealTime) {
    const std::time_t seconds = std::time(nullptr);
    const std::int64_t before = nanosecondsNow();
    const auto now = LinuxClock().read();
    const std::int64_t after = nanosecondsNow();
    ASSERT_TRUE(now);
    EXPECT_GE(nanosecondsOf(*now), before);
    EXPECT_LE(nanosecondsOf(*now), after);
    EXPECT_GE(now->tv_sec, seconds);
    EXPECT_GE(now->tv_nsec, 0);
    EXPECT_LT(now->tv_nsec, 1'000'000'000);
}

/// No clock can be set from now on.
void refuseClocks() {
    for (const long call : {SYS_clock_settime, SYS_settimeofday, SYS_clock_adjtime}) {
        forbidSystemCall(call, EPERM);
    }
}

TEST(LinuxClock, RefusedChangeLeavesItAlone) {
    constexpr int wasSet = 1;
    constexpr int hasMoved = 2;
    EXPECT_EQ(exitStatusOf([] {
                  refuseClocks();
                  const std::int64_t before = nanosecondsNow();
                  if (LinuxClock().set({4'000'000'000, 5})) {
                      ::_exit(wasSet);
                  }
                  const std::int64_t passed = nanosecondsNow() - before;
                  constexpr std::int64_t hour = 3600LL * 1'000'000'000;
                  ::_exit(passed >= 0 && passed < hour ? 0 : hasMoved);
              }),
              0);
}

TEST(LinuxClock, SetsTheRealTimeByTheOneCallForIt) {
    constexpr int answer = 77;  // of that call alone
    EXPECT_EQ(exitStatusOf([] {
                  refuseClocks();
                  forbidSystemCall(SYS_clock_settime, answer, CLOCK_REALTIME);
                  const bool wasSet = LinuxClock().set({4'000'000'000, 5});
                  ::_exit(!wasSet && errno == answer ? 0 : 1);
              }),
              0);
}

}  // namespace
}  // namespace corvane
