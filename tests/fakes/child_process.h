#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace corvane {

/// Runs `body` in a forked child and returns the status with which the child has exited: 120 when
/// `body` returned, 121 when a signal ended it. What the child writes to standard error is seen by
/// whoever captures ours.
inline int exitStatusOf(const std::function<void()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(120);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 121;
}

}  // namespace corvane
