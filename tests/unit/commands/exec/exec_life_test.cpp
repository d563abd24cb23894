// Programs from their start to their reported end, with the reaper at work.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "commands/exec/exec.h"
#include "commands/exec/exec_status.h"
#include "commands/exec/launch.h"
#include "commands/exec/reaper.h"
#include "core/json_writer.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

using ExecLife = ProgramTest;

/// In a process of its own, since the reaper lives as long as its process.
void expectWithReaper(const std::function<bool()>& isTrue) {
    EXPECT_EQ(exitStatusOf([&] {
                  std::thread(reapChildren).detach();
                  ::_exit(isTrue() ? 0 : 1);
              }),
              0);
}

std::string statusOf(pid_t pid) {
    const JsonObject arguments{{"pid", JsonNumber::fromSigned(pid)}};
    return writeJson(handleGuestExecStatus(&arguments));
}

/// The last answer of a program, waited for as hosts do.
std::string finalStatusOf(pid_t pid) {
    for (;;) {
        std::string answer = statusOf(pid);
        if (answer.find("\"exited\":false") == std::string::npos) {
            return answer;
        }
        ::sched_yield();
    }
}

const std::string invalidPid = R"({"error":{"class":"GenericError","desc":"invalid PID"}})";

std::string exited(const std::string& rest) {
    return R"({"return":{"exited":true,)" + rest + "}}";
}

TEST_F(ExecLife, RequestStartsAProgramAndStatusTellsItsEndOnce) {
    expectWithReaper([] {
        JsonObject arguments{{"path", std::string("/bin/sh")},
                             {"arg", JsonArray{std::string("-c"), std::string("cat; exit 3")}},
                             {"input-data", std::string("aGVsbG8=")},
                             {"capture-output", JsonNumber::fromBoolean(true)}};
        const pid_t pid = pidOf(handleGuestExec(&arguments));
        return finalStatusOf(pid) ==
                   exited(R"("out-data":"aGVsbG8=","err-data":"","exitcode":3)") &&
               statusOf(pid) == invalidPid;
    });
}

TEST_F(ExecLife, RequestThatFailsItsChecksStartsNothing) {
    const JsonObject arguments{{"path", std::string("/bin/sh")}, {"arg", std::string("-c")}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(errorOf(handleGuestExec(&arguments)), "arg is not an array");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "handleGuestExec: arg is not an array\n");
    EXPECT_EQ(errorOf(handleGuestExec(nullptr)), "missing arguments");
    EXPECT_TRUE(processTable.empty());
}

/// Launches, queries and ends, all at once: the ends of children come in while others start.
TEST_F(ExecLife, ThousandProgramsThatEndAtOnceAreEachReportedOnceWithTheirOwnStatus) {
    expectWithReaper([] {
        std::deque<std::pair<pid_t, int>> running;
        const auto reportOldest = [&running] {
            const auto [pid, code] = running.front();
            running.pop_front();
            return finalStatusOf(pid) == exited("\"exitcode\":" + std::to_string(code)) &&
                   statusOf(pid) == invalidPid;
        };
        for (int count = 0; count < 1000; ++count) {
            const int code = count % 256;
            running.emplace_back(pidOf(launch(shellCommand("exit " + std::to_string(code)))), code);
            if (running.size() > 20 && !reportOldest()) {
                return false;
            }
        }
        while (!running.empty()) {
            if (!reportOldest()) {
                return false;
            }
        }
        return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
    });
}

TEST_F(ExecLife, ManyRoundsOfCaptureAndInputLeaveNoDescriptorAndNoFile) {
    expectWithReaper([this] {
        const std::string directory = platform_.privateDirectory.prepare().value();
        const std::size_t before = countDescriptors();
        for (int count = 0; count < 200; ++count) {
            ExecRequest request = shellCommand("cat");
            request.captureOutput = true;
            request.inputData = "abc";
            if (finalStatusOf(pidOf(launch(std::move(request)))) !=
                exited(R"("out-data":"YWJj","err-data":"","exitcode":0)")) {
                return false;
            }
        }
        return countDescriptors() == before && std::filesystem::is_empty(directory);
    });
}

TEST_F(ExecLife, StoppedAndContinuedProgramIsRunningAllTheWhile) {
    expectWithReaper([] {
        const pid_t pid = pidOf(launch(shellCommand("exec sleep 1000")));
        const std::string running = R"({"return":{"exited":false}})";
        siginfo_t info{};
        ::kill(pid, SIGSTOP);
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOWAIT);
        bool fine = statusOf(pid) == running;
        ::kill(pid, SIGCONT);
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WCONTINUED | WNOWAIT);
        fine = fine && statusOf(pid) == running;
        ::kill(pid, SIGKILL);
        return fine && finalStatusOf(pid) == exited("\"signal\":9");
    });
}

TEST_F(ExecLife, ChildOfAnotherKindIsReapedAndUnknown) {
    expectWithReaper([] {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(1);
        }
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
        while (::kill(child, 0) == 0) {
            ::sched_yield();  // until it has been reaped
        }
        return statusOf(child) == invalidPid;
    });
}

/// Runs `isTrue` in a process that decides which process ids come next, or says why it cannot.
/// See pid_namespaces(7) and proc(5), ns_last_pid.
std::string withOwnProcessIds(const std::function<bool()>& isTrue) {
    constexpr int notPermitted = 2;
    const int status = exitStatusOf([&] {
        if (::unshare(CLONE_NEWPID) != 0) {
            ::_exit(notPermitted);
        }
        const pid_t first = ::fork();
        if (first == 0) {
            ::_exit(isTrue() ? 0 : 1);
        }
        int ended = 0;
        ::waitpid(first, &ended, 0);
        ::_exit(WIFEXITED(ended) ? WEXITSTATUS(ended) : 1);
    });
    EXPECT_TRUE(status == 0 || status == notPermitted);
    return status == notPermitted ? "process ids of its own need privileges" : "";
}

/// The next child gets this process id.
void chooseNextPid(pid_t pid) {
    const DescriptorGuard file(::open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC));
    const std::string text = std::to_string(pid - 1);
    if (::write(file.borrow(), text.data(), text.size()) < 0) {
        ADD_FAILURE() << "ns_last_pid";
    }
}

TEST_F(ExecLife, ProcessThatGetsAnIdThatWasAskedAboutBeforeIsReported) {
    const std::string skipped = withOwnProcessIds([] {
        if (statusOf(500) != invalidPid) {
            return false;
        }
        chooseNextPid(500);
        const pid_t pid = pidOf(launch(shellCommand("exit 9")));
        awaitEnd(pid);
        drainEndedChildren();
        return pid == 500 && statusOf(500) == exited("\"exitcode\":9") &&
               statusOf(500) == invalidPid;
    });
    if (!skipped.empty()) {
        GTEST_SKIP() << skipped;
    }
}

TEST_F(ExecLife, RecordOfAnEndedProgramIsReplacedByTheNextOneWithItsId) {
    const std::string skipped = withOwnProcessIds([] {
        for (const int code : {7, 8}) {
            chooseNextPid(500);
            const pid_t pid = pidOf(launch(shellCommand("exit " + std::to_string(code))));
            awaitEnd(pid);
            drainEndedChildren();
            if (pid != 500) {
                return false;
            }
        }
        return statusOf(500) == exited("\"exitcode\":8");
    });
    if (!skipped.empty()) {
        GTEST_SKIP() << skipped;
    }
}

TEST_F(ExecLife, ReplacedRecordLeavesItsCaptureFilesOpen) {
    const std::string skipped = withOwnProcessIds([] {
        const std::size_t before = countDescriptors();
        for (int count = 0; count < 2; ++count) {
            ExecRequest request = shellCommand("true");
            request.captureOutput = true;
            chooseNextPid(500);
            awaitEnd(pidOf(launch(std::move(request))));
            drainEndedChildren();
        }
        return countDescriptors() == before + 4;
    });
    if (!skipped.empty()) {
        GTEST_SKIP() << skipped;
    }
}

TEST_F(ExecLife, StatusOfAnEndedProgramSurvivesAnotherChildWithItsId) {
    const std::string skipped = withOwnProcessIds([] {
        chooseNextPid(500);
        awaitEnd(pidOf(launch(shellCommand("exit 7"))));
        drainEndedChildren();
        chooseNextPid(500);
        const pid_t other = ::fork();
        if (other == 0) {
            ::_exit(55);
        }
        awaitEnd(other);
        drainEndedChildren();
        return other == 500 && statusOf(500) == exited("\"exitcode\":7");
    });
    if (!skipped.empty()) {
        GTEST_SKIP() << skipped;
    }
}

}  // namespace
}  // namespace corvane
