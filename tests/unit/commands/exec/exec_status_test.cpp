#include "commands/exec/exec_status.h"

#include <signal.h>

#include <functional>
#include <mutex>
#include <thread>

#include "commands/exec/reaper.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/commands/exec/exec_status_fixture.h"

namespace corvane {
namespace {

class ExecStatus : public ExecStatusFixture {
 protected:
    struct Answer {
        std::string response;
        std::string standardError;
    };
    /// `arguments` is JSON text; none at all when it is empty.
    static Answer ask(const std::string& arguments) {
        const JsonValue value = arguments.empty() ? JsonValue() : valueOf(arguments);
        testing::internal::CaptureStderr();
        std::string response = writeJson(handleGuestExecStatus(value.object()));
        return {std::move(response), testing::internal::GetCapturedStderr()};
    }

    /// A child of ours under its record; it has ended, and been reaped, when this returns.
    static pid_t runToItsEnd(const std::function<void()>& body) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            body();
            ::_exit(0);
        }
        remember(pid);
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        drainEndedChildren();
        return pid;
    }

    static bool hasEntry(pid_t pid) { return processTable.contains(pid); }
};

std::string error(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
}

TEST_F(ExecStatus, WithoutArgumentsIsRefusedWithoutALineOnStandardError) {
    const Answer answer = ask("");
    EXPECT_EQ(answer.response, error("missing arguments"));
    EXPECT_EQ(answer.standardError, "");
    EXPECT_TRUE(processTable.empty());
}

TEST_F(ExecStatus, PidThatIsAbsentOrNoNumberIsRefusedOnBothChannels) {
    for (const char* arguments : {"{}", R"({"PID":1})", R"({"pid":"1"})", R"({"pid":null})",
                                  R"({"pid":[1]})", R"({"pid":{}})"}) {
        const Answer answer = ask(arguments);
        EXPECT_EQ(answer.response, error("pid is not a number")) << arguments;
        EXPECT_EQ(answer.standardError, "handleGuestExecStatus: pid is not a number\n");
    }
    EXPECT_TRUE(processTable.empty()) << "nothing is looked up before";
}

TEST_F(ExecStatus, UnknownPidIsRefusedAndLeavesAnEntryWithoutARecord) {
    for (int round = 0; round < 2; ++round) {
        const Answer answer = ask(R"({"pid":4711})");
        EXPECT_EQ(answer.response, invalidPid);
        EXPECT_EQ(answer.standardError, "");
        ASSERT_EQ(processTable.size(), 1U);
        EXPECT_EQ(processTable.at(4711), nullptr);
    }
}

TEST_F(ExecStatus, PidIsCutTo32Bits) {
    remember(1);
    remember(0);
    remember(-5);
    const std::string running = R"({"return":{"exited":false}})";
    for (const char* pid : {"1", "true", "1.9", "4294967297", "-4294967295", "0", "false", "-0.5",
                            "-5", "4294967291", "18446744073709551611"}) {
        EXPECT_EQ(ask(std::string(R"({"pid":)") + pid + "}").response, running) << pid;
    }
    EXPECT_EQ(ask(R"({"pid":2})").response, invalidPid);
    EXPECT_EQ(ask(R"({"pid":2147483649})").response, invalidPid);
}

TEST_F(ExecStatus, ProcessWithoutCapturedOutputHasNoOutputKeysEvenAfterItsEnd) {
    ProcessRecord& record = remember(nobodysPid);
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":false}})");
    end(record, 0);
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":true,"exitcode":0}})");
}

TEST_F(ExecStatus, ProcessWithoutCapturedOutputClosesNoDescriptor) {
    ProcessRecord& record = remember(nobodysPid);
    const std::size_t before = countDescriptors();
    end(record, 0);
    poll(nobodysPid);
    EXPECT_EQ(countDescriptors(), before) << "its descriptor numbers are 0, and not its own";
}

TEST_F(ExecStatus, EndIsReportedOnceAndThenThePidIsInvalid) {
    const pid_t pid = runToItsEnd([] { ::_exit(3); });
    EXPECT_EQ(pollText(pid), R"({"return":{"exited":true,"exitcode":3}})");
    EXPECT_FALSE(hasEntry(pid));
    EXPECT_EQ(pollText(pid), invalidPid);
    EXPECT_TRUE(hasEntry(pid));
    EXPECT_EQ(pollText(pid), invalidPid);
}

TEST_F(ExecStatus, ExitCodesAreOfEightBitsWithoutASign) {
    for (const int code : {0, 1, 127, 128, 255}) {
        const pid_t pid = runToItsEnd([code] { ::_exit(code); });
        EXPECT_EQ(pollText(pid),
                  R"({"return":{"exited":true,"exitcode":)" + std::to_string(code) + "}}");
    }
}

TEST_F(ExecStatus, KilledProcessHasASignalAndNoExitCode) {
    for (const int signal : {SIGHUP, SIGKILL, SIGTERM, SIGUSR1, SIGRTMAX}) {
        const pid_t pid = runToItsEnd([signal] {
            ::signal(signal, SIG_DFL);
            ::raise(signal);
        });
        EXPECT_EQ(pollText(pid),
                  R"({"return":{"exited":true,"signal":)" + std::to_string(signal) + "}}");
    }
}

TEST_F(ExecStatus, StatusIsReadByItsBits) {
    const std::vector<std::pair<int, std::string>> ends = {
        {0x008B, R"(,"signal":11)"},     // and a core dump
        {0x000B, R"(,"signal":11)"},     //
        {0x137F, ""},                    // stopped by signal 19
        {0x007F, ""},                    //
        {0xFFFF, ""},                    // continued
        {0x7F00, R"(,"exitcode":127)"},  //
        {0xFF00, R"(,"exitcode":255)"},  //
        {0x0080, R"(,"exitcode":0)"},    // bit 7 belongs to neither
        {0x0309, R"(,"signal":9)"},      // a signal, whatever stands above it
    };
    for (const auto& [status, keys] : ends) {
        end(remember(nobodysPid), status);
        EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":true)" + keys + "}}") << status;
        EXPECT_FALSE(hasEntry(nobodysPid)) << status;
    }
}

TEST_F(ExecStatus, StatusOfARunningProcessIsNotLookedAt) {
    remember(nobodysPid).status = 3 << 8;
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":false}})");
}

TEST_F(ExecStatus, BothStreamsAreReportedWhetherTheProcessRunsOrNot) {
    ProcessRecord& record = rememberCapturing(nobodysPid);
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":false,"out-data":"","err-data":""}})");
    writeAll(record.outFd, "a");
    writeAll(record.errFd, "bc");
    const std::string streams = R"("out-data":"YQ==","err-data":"YmM=")";
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":false,)" + streams + "}}");
    end(record, SIGKILL);
    EXPECT_EQ(pollText(nobodysPid), R"({"return":{"exited":true,)" + streams + R"(,"signal":9}})");
}

TEST_F(ExecStatus, FilesAndDescriptorsAreReleasedWithTheReportOfTheEndAndNotBefore) {
    const std::size_t before = countDescriptors();
    ProcessRecord& record = rememberCapturing(nobodysPid);
    const std::string outPath = record.outPath;
    const std::string errPath = record.errPath;
    poll(nobodysPid);
    end(record, 0);
    EXPECT_EQ(countDescriptors(), before + 2) << "an end that nobody has asked for";
    EXPECT_TRUE(std::filesystem::exists(outPath));
    EXPECT_TRUE(std::filesystem::exists(errPath));
    poll(nobodysPid);
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_FALSE(std::filesystem::exists(outPath));
    EXPECT_FALSE(std::filesystem::exists(errPath));
}

TEST_F(ExecStatus, FilesThatAreGoneAlreadyDoNotMatter) {
    ProcessRecord& record = rememberCapturing(nobodysPid);
    writeAll(record.outFd, "a");
    std::filesystem::remove(record.outPath);
    std::filesystem::remove(record.errPath);
    end(record, 0);
    EXPECT_EQ(pollText(nobodysPid),
              R"({"return":{"exited":true,"out-data":"YQ==","err-data":"","exitcode":0}})");
}

TEST_F(ExecStatus, FiveHundredProcessesLeaveNothingBehind) {
    const std::size_t before = countDescriptors();
    for (int round = 0; round < 500; ++round) {
        ProcessRecord& record = rememberCapturing(nobodysPid);
        writeAll(record.outFd, "text");
        poll(nobodysPid);
        end(record, 0);
        poll(nobodysPid);
    }
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_TRUE(processTable.empty());
    EXPECT_TRUE(std::filesystem::is_empty(platform_.privateDirectory.prepare().value()));
}

/// Polls until the end is told, and returns whether it is exit code 5. Blocks in between until
/// some child has ended.
bool endsWithFive(pid_t pid) {
    JsonObject arguments;
    arguments.add("pid", JsonNumber::fromSigned(pid));
    for (;;) {
        const std::string response = writeJson(handleGuestExecStatus(&arguments));
        if (response != R"({"return":{"exited":false}})") {
            return response == R"({"return":{"exited":true,"exitcode":5}})";
        }
        siginfo_t info{};  // returns also when the child has been reaped
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    }
}

/// In a process of its own, since the reaper lives as long as its process.
TEST_F(ExecStatus, PollsAndTheReaperShareTheTable) {
    EXPECT_EQ(exitStatusOf([] {
                  std::thread(reapChildren).detach();
                  for (int child = 0; child < 100; ++child) {
                      std::unique_lock lock(processTableLock);
                      const pid_t pid = ::fork();
                      if (pid == 0) {
                          ::_exit(5);
                      }
                      auto record = std::make_unique<ProcessRecord>();
                      record->running = true;
                      processTable[pid] = std::move(record);
                      lock.unlock();
                      if (!endsWithFive(pid)) {
                          ::_exit(1);
                      }
                  }
                  ::_exit(processTable.empty() ? 0 : 2);
              }),
              0);
}

}  // namespace
}  // namespace corvane
