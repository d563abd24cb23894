#pragma once

#include <signal.h>

#include <set>

namespace corvane {

/// The signals that the calling thread blocks, of those that can be blocked.
inline std::set<int> blockedSignals() {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::set<int> blocked;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (::sigismember(&mask, signal) == 1) {
            blocked.insert(signal);
        }
    }
    return blocked;
}

/// All but those that the kernel or the C library keeps for itself. See signal(7) and nptl(7).
inline std::set<int> blockableSignals() {
    std::set<int> all;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN)) {
            all.insert(signal);
        }
    }
    return all;
}

}  // namespace corvane
