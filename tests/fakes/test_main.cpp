#include <signal.h>

#include <gtest/gtest.h>

/// As in the agent: a write to a peer that has gone fails, and SIGCHLD is left to whoever waits for
/// it, in every thread.
int main(int argc, char** argv) {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t childSignal;
    ::sigemptyset(&childSignal);
    ::sigaddset(&childSignal, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &childSignal, nullptr);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
