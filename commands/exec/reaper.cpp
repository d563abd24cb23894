#include "commands/exec/reaper.h"

#include <signal.h>
#include <sys/wait.h>

#include "commands/exec/process_table.h"

namespace corvane {

void reapChildren() {
    sigset_t childSignal;
    ::sigemptyset(&childSignal);
    ::sigaddset(&childSignal, SIGCHLD);
    for (;;) {
        int signal = 0;
        if (::sigwait(&childSignal, &signal) == 0 && signal == SIGCHLD) {
            drainEndedChildren();
        }
    }
}

void drainEndedChildren() {
    const std::lock_guard lock(processTableLock);
    int status = 0;
    // One signal may stand for several children.
    for (pid_t pid = ::waitpid(-1, &status, WNOHANG); pid > 0;
         pid = ::waitpid(-1, &status, WNOHANG)) {
        const auto entry = processTable.find(pid);
        if (entry != processTable.end() && entry->second) {
            entry->second->running = false;
            entry->second->status = status;
        }
    }
}

}  // namespace corvane
