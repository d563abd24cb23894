#include "commands/exec/child_setup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cerrno>

#include "commands/exec/close_descriptors.h"
#include "commands/exec/system_call.h"

namespace corvane {

namespace {

constexpr int highestSignal = 64;  // signal(7), the last real-time signal
constexpr long signalSetSize = 8;  // bytes, as the kernel has it: rt_sigaction(2)

/// The kernel's struct sigaction, which no header shares; the default action is all zeros.
struct KernelAction {
    unsigned long words[8];  // NOLINT: no code of the library's may run here
};

[[noreturn]] void fail() noexcept {
    for (;;) {
        systemCall(SYS_exit_group, startFailed);
    }
}

void require(long result) noexcept {
    if (result < 0) {
        fail();
    }
}

void takeStandardStreams(const ChildSetup& setup) noexcept {
    systemCall(SYS_dup3, setup.standardInput, 0, 0);
    systemCall(SYS_dup3, setup.standardOutput, 1, 0);
    systemCall(SYS_dup3, setup.standardError, 2, 0);
}

/// The agent's descriptors are close-on-exec from birth, but the child may hang before that: then
/// it must not keep the channel, or a file that the host has closed. And a library, or whoever
/// started the agent, may have left others open.
void keepOnlyGrantedDescriptors(const ChildSetup& setup) noexcept {
    int held[3] = {setup.kept[0], setup.kept[1], setup.untilStart};  // NOLINT
    closeAllBut(held, 3);
    for (const int descriptor : setup.kept) {
        if (descriptor >= 0) {
            systemCall(SYS_fcntl, descriptor, F_SETFD, 0);
        }
    }
}

void enterWorkingDirectory(const ChildSetup& setup) noexcept {
    if (setup.workingDirectory) {
        require(systemCall(SYS_chdir, asArgument(setup.workingDirectory)));
    }
}

/// The group first: afterwards the user may not be allowed to. The C library's functions would
/// change the agent's threads.
void takeIdentity(const ChildSetup& setup) noexcept {
    if (setup.group) {
        require(systemCall(SYS_setgid, static_cast<long>(*setup.group)));
    }
    if (setup.user) {
        require(systemCall(SYS_setuid, static_cast<long>(*setup.user)));
    }
}

void resetSignals() noexcept {
    const KernelAction defaultAction{};
    for (int signal = 1; signal <= highestSignal; ++signal) {
        systemCall(SYS_rt_sigaction, signal, asArgument(&defaultAction), 0, signalSetSize);
    }
}

void unblockSignals() noexcept {
    const unsigned long long none = 0;
    require(systemCall(SYS_rt_sigprocmask, SIG_SETMASK, asArgument(&none), 0, signalSetSize));
}

/// A session of its own, with the terminal that its output goes to, if it is one, as the
/// controlling terminal.
void startSession() noexcept {
    require(systemCall(SYS_setsid));
    systemCall(SYS_ioctl, 1, TIOCSCTTY, 0);
}

/// Whether the search goes on after a candidate that failed so. See exec(3), execvp.
bool mayBeElsewhere(long error) noexcept {
    switch (error) {
        case -EACCES:
        case -ENOENT:
        case -ESTALE:
        case -ENOTDIR:
        case -ENODEV:
        case -ETIMEDOUT:
            return true;
        default:
            return false;
    }
}

void becomeProgram(const ChildSetup& setup) noexcept {
    const long environment = asArgument(setup.environment);
    for (const char* const* candidate = setup.candidates; *candidate; ++candidate) {
        const long path = asArgument(*candidate);
        long error = systemCall(SYS_execve, path, asArgument(setup.arguments), environment);
        if (error == -ENOEXEC) {  // a script without "#!" is the shell's
            setup.shellArguments[1] = *candidate;
            error = systemCall(SYS_execve, asArgument(setup.shellArguments[0]),
                               asArgument(setup.shellArguments), environment);
        }
        if (!mayBeElsewhere(error)) {
            return;
        }
    }
}

}  // namespace

int runChild(void* given) noexcept {
    const ChildSetup& setup = *static_cast<const ChildSetup*>(given);
    takeStandardStreams(setup);
    keepOnlyGrantedDescriptors(setup);
    enterWorkingDirectory(setup);
    takeIdentity(setup);
    resetSignals();
    unblockSignals();
    startSession();
    becomeProgram(setup);
    fail();
}

}  // namespace corvane
