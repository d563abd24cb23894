// Starts that fail, and children that hang before they have become their programs.

#include <fcntl.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/forbidden_call.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool sanitizersNeedTheirCalls = true;
#elif defined(__SANITIZE_THREAD__)
constexpr bool sanitizersNeedTheirCalls = true;
#else
constexpr bool sanitizersNeedTheirCalls = false;
#endif

class LaunchFailure : public ProgramTest {
 protected:
    void SetUp() override {
        if (sanitizersNeedTheirCalls) {
            GTEST_SKIP() << "a sanitizer makes the calls that fail here, too";
        }
    }

    static ExecRequest capturing() {
        ExecRequest request = shellCommand("true");
        request.captureOutput = true;
        return request;
    }

    ExecRequest onATerminal() {
        platform_.vsockSockets.createError = 0;
        ExecRequest request = shellCommand("true");
        request.vsockTarget = VsockTarget{2, 1};
        request.terminalSettings = TerminalSettings{};
        request.windowSize = winsize{};
        return request;
    }
};

bool lockIsFree() {
    const bool taken = processTableLock.try_lock();
    if (taken) {
        processTableLock.unlock();
    }
    return taken;
}

/// Exit status 0 when `isTrue`, in a child that may be spoilt.
void expectInAChild(const std::function<bool()>& isTrue) {
    EXPECT_EQ(exitStatusOf([&] { ::_exit(isTrue() ? 0 : 1); }), 0);
}

TEST_F(LaunchFailure, ForkThatFailsIsSaidAndLeavesTheLockFreeAndTheMaskAsItWas) {
    expectInAChild([] {
        sigset_t before;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
        forbidSystemCall(SYS_clone, EAGAIN);
        const std::string error = errorOf(launch(shellCommand("true")));
        sigset_t after;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
        return error == "failed to fork child: Resource temporarily unavailable" && lockIsFree() &&
               processTable.empty() && ::sigismember(&after, SIGTERM) == 0 &&
               ::sigismember(&after, SIGCHLD) == ::sigismember(&before, SIGCHLD);
    });
}

TEST_F(LaunchFailure, ForkThatFailsLeavesTheCaptureFilesOpen) {
    expectInAChild([] {
        run(shellCommand("true"));
        const std::size_t before = countDescriptors();
        forbidSystemCall(SYS_clone, EAGAIN);
        errorOf(launch(capturing()));
        return countDescriptors() == before + 2;
    });
}

TEST_F(LaunchFailure, StartThatCannotBeWatchedIsSaid) {
    expectInAChild([] {
        const std::size_t before = countDescriptors();
        forbidSystemCall(SYS_pipe2, EMFILE);
        return errorOf(launch(shellCommand("true"))) ==
                   "failed to fork child: Too many open files" &&
               countDescriptors() == before && processTable.empty();
    });
}

/// As before Linux 5.9.
TEST_F(LaunchFailure, WithoutACallThatClosesManyDescriptorsTheyAreClosedOneByOne) {
    expectInAChild([] {
        rlimit few{};
        ::getrlimit(RLIMIT_NOFILE, &few);
        few.rlim_cur = 256;  // the last that it tries
        ::setrlimit(RLIMIT_NOFILE, &few);
        // Inheritable, and one of them as far up as can be.
        const int low = ::open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open)
        if (low < 0 || ::fcntl(low, F_DUPFD, 255) != 255) {
            return false;
        }
        forbidSystemCall(SYS_close_range, ENOSYS);
        const std::string own = "/proc/self/fd/" + std::to_string(low);
        return run(shellCommand("test -e /proc/self/fd/1 -a ! -e " + own +
                                " -a ! -e /proc/self/fd/255"))
                   .status == 0;
    });
}

TEST_F(LaunchFailure, SignalsThatCannotBeBlockedAreSaidAndTheLockStaysTaken) {
    expectInAChild([] {
        forbidSystemCall(SYS_rt_sigprocmask, EINVAL, SIG_SETMASK);
        return errorOf(launch(shellCommand("true"))) ==
                   "failed to block signals: Invalid argument" &&
               !lockIsFree();
    });
}

TEST_F(LaunchFailure, AgentWhoseLockStaysTakenCanStillExit) {
    EXPECT_EQ(exitStatusOf([] {
                  forbidSystemCall(SYS_rt_sigprocmask, EINVAL, SIG_SETMASK);
                  errorOf(launch(shellCommand("true")));
                  std::exit(7);
              }),
              7);
}

TEST_F(LaunchFailure, TerminalThatCannotBeMadeIsSaid) {
    platform_.terminals.openError = ENOSPC;
    const std::size_t before = countDescriptors();
    EXPECT_EQ(errorOf(launch(onATerminal())), "failed to openpty: No space left on device");
    platform_.vsockSockets.hostEnds.clear();
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(LaunchFailure, RelayThatCannotBeForkedIsSaid) {
    expectInAChild([this] {
        const std::size_t before = countDescriptors();
        forbidSystemCall(SYS_clone, ENOMEM);
        const std::string error = errorOf(launch(onATerminal()));
        platform_.vsockSockets.hostEnds.clear();
        return error == "failed to fork pty child: Cannot allocate memory" &&
               countDescriptors() == before;
    });
}

TEST_F(LaunchFailure, RelayEndsWhenItsProgramCannotBeForked) {
    expectInAChild([this] {
        forbidSystemCall(SYS_clone, EAGAIN, CLONE_VM | SIGCHLD);
        const std::string error = errorOf(launch(onATerminal()));
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
        return error == "failed to fork child: Resource temporarily unavailable" && errno == ECHILD;
    });
}

TEST_F(LaunchFailure, ChildThatCannotLeadASessionEndsWithStatus255) {
    expectInAChild([] {
        forbidSystemCall(SYS_setsid, EPERM);
        return run(shellCommand("true")).status == 255 << 8;
    });
}

/// Makes every chdir(2) of this process and its children wait until it is answered through the
/// descriptor that this returns. See seccomp_unotify(2).
DescriptorGuard holdDirectoryChanges() {
    std::array<sock_filter, 4> filter{{
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_chdir},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_USER_NOTIF},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    }};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    return DescriptorGuard(static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                                      SECCOMP_FILTER_FLAG_NEW_LISTENER, &program)));
}

/// Lets the next held call go on. Waits for it.
bool letOneGo(int listener) {
    seccomp_notif call{};
    seccomp_notif_resp answer{};
    if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) {
        return false;
    }
    answer.id = call.id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    return ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer) == 0;
}

TEST_F(LaunchFailure, ChildThatHangsOnItsWayHoldsNobody) {
    expectInAChild([] {
        std::array<int, 2> ends{};
        const DescriptorGuard listener = holdDirectoryChanges();
        if (listener.empty() || ::pipe2(ends.data(), O_CLOEXEC) != 0) {
            return false;
        }
        ExecRequest hanging = shellCommand("exit 8");
        hanging.workingDirectory = "/";
        const pid_t first = pidOf(launch(hanging));
        const pid_t second = pidOf(launch(hanging));
        // Meanwhile others come and go.
        for (int count = 0; count < 20; ++count) {
            if (run(shellCommand("echo fine")).out != "fine\n") {
                return false;
            }
        }
        // And nothing of the agent's stays open in the hanging ones.
        ::close(ends[1]);
        char byte = 0;
        const bool closed = ::read(ends[0], &byte, 1) == 0;
        return closed && letOneGo(listener.borrow()) && letOneGo(listener.borrow()) &&
               endOf(first).status == 8 << 8 && endOf(second).status == 8 << 8;
    });
}

}  // namespace
}  // namespace corvane
