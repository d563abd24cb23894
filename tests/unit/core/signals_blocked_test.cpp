#include "core/signals_blocked.h"

#include <signal.h>

#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/core/signal_mask.h"

namespace corvane {
namespace {

/// Blocks one signal more for a test.
class SignalsBlockedTest : public testing::Test {
 protected:
    SignalsBlockedTest() {
        sigset_t one;
        ::sigemptyset(&one);
        ::sigaddset(&one, SIGUSR1);
        ::pthread_sigmask(SIG_BLOCK, &one, &before_);
    }
    ~SignalsBlockedTest() override { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
    sigset_t before_{};
};

TEST_F(SignalsBlockedTest, BlocksAllForAScopeAndPutsTheMaskBack) {
    const std::set<int> before = blockedSignals();
    ASSERT_EQ(before.count(SIGUSR1), 1U);
    ASSERT_EQ(before.count(SIGTERM), 0U);
    {
        const SignalsBlocked blocked;
        EXPECT_EQ(blockedSignals(), blockableSignals());
        {
            const SignalsBlocked again;
            EXPECT_EQ(blockedSignals(), blockableSignals());
        }
        EXPECT_EQ(blockedSignals(), blockableSignals());
    }
    EXPECT_EQ(blockedSignals(), before);
}

TEST_F(SignalsBlockedTest, ThreadMadeInItsScopeKeepsThemBlocked) {
    std::set<int> inThread;
    std::thread thread;
    {
        const SignalsBlocked blocked;
        thread = std::thread([&inThread] { inThread = blockedSignals(); });
    }
    thread.join();
    EXPECT_EQ(inThread, blockableSignals());
}

}  // namespace
}  // namespace corvane
