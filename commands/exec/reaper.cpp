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
        // The record of a program that has ended and was never asked about keeps its status when
        // another child of ours comes by the same process id.
        if (entry != processTable.end() && entry->second && entry->second->running) {
            entry->second->running = false;
            entry->second->status = status;
        }
    }
}

}  // namespace corvane
