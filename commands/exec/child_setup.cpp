#include "commands/exec/child_setup.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cerrno>

#include "commands/exec/system_call.h"

namespace corvane {

namespace {

constexpr int highestSignal = 64;  // signal(7), the last real-time signal
constexpr long signalSetSize = 8;  // bytes, as the kernel has it: rt_sigaction(2)

/// The kernel's struct sigaction, which no header shares; the default action is all zeros.
using KernelAction = std::array<unsigned long, 8>;

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

void duplicate(int from, int to) noexcept {
    if (from == to) {
        systemCall(SYS_fcntl, to, F_SETFD, 0);
    } else {
        systemCall(SYS_dup3, from, to, 0);
    }
}

void takeStandardStreams(const ChildSetup& setup) noexcept {
    duplicate(setup.standardInput, 0);
    duplicate(setup.standardOutput, 1);
    duplicate(setup.standardError, 2);
}

void enterWorkingDirectory(const ChildSetup& setup) noexcept {
    if (setup.workingDirectory) {
        require(systemCall(SYS_chdir, asArgument(setup.workingDirectory)));
    }
}

/// The group first: afterwards the user may not be allowed to. The C library's functions would
/// change the agent's threads.
void takeIdentity(const ChildSetup& setup) noexcept {
#if defined(SYS_setuid32)
    constexpr long setGroup = SYS_setgid32;
    constexpr long setUser = SYS_setuid32;
#else
    constexpr long setGroup = SYS_setgid;
    constexpr long setUser = SYS_setuid;
#endif
    if (setup.group) {
        require(systemCall(setGroup, static_cast<long>(*setup.group)));
    }
    if (setup.user) {
        require(systemCall(setUser, static_cast<long>(*setup.user)));
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
void startSession(const ChildSetup& setup) noexcept {
    require(systemCall(SYS_setsid));
    systemCall(SYS_ioctl, setup.standardOutput, TIOCSCTTY, 0);
}

/// The agent's descriptors are close-on-exec from birth. This holds for those, too, that a library
/// or whoever started the agent has left open.
void keepOnlyGrantedDescriptors(const ChildSetup& setup) noexcept {
    systemCall(SYS_close_range, 3, ~0U, CLOSE_RANGE_CLOEXEC);
    for (const int descriptor : setup.kept) {
        if (descriptor > 2) {
            systemCall(SYS_fcntl, descriptor, F_SETFD, 0);
        }
    }
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
    enterWorkingDirectory(setup);
    takeIdentity(setup);
    resetSignals();
    unblockSignals();
    startSession(setup);
    keepOnlyGrantedDescriptors(setup);
    becomeProgram(setup);
    fail();
}

}  // namespace corvane
