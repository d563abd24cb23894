#pragma once

#include <signal.h>

namespace corvane {

/// Blocks all signals for a scope, and so for good in a thread that is created in it: a thread that
/// left SIGCHLD open would take it away from the reaper. One thread.
class SignalsBlocked {
 public:
    SignalsBlocked() noexcept {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
    sigset_t before_{};
};

}  // namespace corvane
