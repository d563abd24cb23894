// Where a program's input comes from and where its output goes.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

class LaunchStreams : public ProgramTest {
 protected:
    LaunchStreams() { scratch_ = platform_.privateDirectory.prepare().value() + "/"; }

    [[nodiscard]] std::string scratch(const std::string& name) const { return scratch_ + name; }

    std::string makeFile(const std::string& name, const std::string& content) const {
        std::ofstream(scratch(name), std::ios::binary) << content;
        return scratch(name);
    }

    /// Where the three streams of a program lead that is started so.
    std::vector<std::string> linksOf(ExecRequest request) {
        request.path = "/bin/sh";
        request.arguments = {
            "-c", "readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 | cat >" + scratch("links")};
        endOf(pidOf(launch(std::move(request))));
        return linesOf(contentOf(scratch("links")));
    }

    /// The number in the names of the next capture files.
    int nextNumber() {
        ExecRequest request = shellCommand("true");
        request.captureOutput = true;
        const pid_t pid = pidOf(launch(std::move(request)));
        const std::string path = processTable.at(pid)->outPath;
        endOf(pid);
        return std::stoi(path.substr(path.rfind('_') + 1)) + 1;
    }

    /// What the agent says when it cannot open `path`.
    static std::string cannotOpen(const std::string& path, int error) {
        return "failed to open " + path + ": " + std::generic_category().message(error);
    }

 private:
    std::string scratch_;
};

using Lines = std::vector<std::string>;

TEST_F(LaunchStreams, WithoutStreamKeysAllThreeAreTheNullDevice) {
    EXPECT_EQ(linksOf({}), (Lines{"/dev/null", "/dev/null", "/dev/null"}));
}

TEST_F(LaunchStreams, CaptureKeepsTheTwoOutputsApart) {
    const ProgramEnd end = run(shellCommand("echo out; echo err >&2"));
    EXPECT_EQ(end.out, "out\n");
    EXPECT_EQ(end.err, "err\n");
}

TEST_F(LaunchStreams, CaptureFilesAreNumberedInOneRowAndOursAlone) {
    const int number = nextNumber();
    for (int count = 0; count < 2; ++count) {
        ExecRequest request = shellCommand("true");
        request.captureOutput = true;
        const pid_t pid = pidOf(launch(std::move(request)));
        const ProcessRecord& record = *processTable.at(pid);
        EXPECT_EQ(record.outPath, scratch("stdout_" + std::to_string(number + count)));
        EXPECT_EQ(record.errPath, scratch("stderr_" + std::to_string(number + count)));
        struct stat status {};
        ASSERT_EQ(::stat(record.outPath.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U);
        EXPECT_EQ(::fcntl(record.outFd, F_GETFL) & O_ACCMODE, O_RDWR);
        EXPECT_EQ(::fcntl(record.outFd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(record.errFd, F_GETFD), FD_CLOEXEC);
        endOf(pid);
    }
}

TEST_F(LaunchStreams, CaptureStartsAtNumberZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a new process
    EXPECT_EXIT(::_exit(nextNumber() == 1 ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(LaunchStreams, CaptureFileThatCannotBeOpenedIsNamedAndItsNumberUsedAgain) {
    const int number = nextNumber();
    const std::string outPath = scratch("stdout_" + std::to_string(number));
    const std::string errPath = scratch("stderr_" + std::to_string(number));
    ExecRequest request = shellCommand("true");
    request.captureOutput = true;
    const std::size_t before = countDescriptors();

    std::filesystem::create_directory(outPath);
    EXPECT_EQ(errorOf(launch(request)), cannotOpen(outPath, EISDIR));
    EXPECT_FALSE(std::filesystem::exists(errPath));
    std::filesystem::remove(outPath);

    std::filesystem::create_directory(errPath);
    EXPECT_EQ(errorOf(launch(request)), cannotOpen(errPath, EISDIR));
    EXPECT_TRUE(std::filesystem::exists(outPath)) << "it stays on disk";
    EXPECT_EQ(countDescriptors(), before) << "its descriptor is closed";
    std::filesystem::remove(errPath);

    EXPECT_EQ(nextNumber(), number + 1);
    EXPECT_TRUE(processTable.empty());
}

TEST_F(LaunchStreams, CaptureNeverEmptiesAFileThatSomebodyHasPlanted) {
    const int number = nextNumber();
    const std::string name = "stdout_" + std::to_string(number);
    const std::string foreign = makeFile("foreign", "precious");
    std::filesystem::create_symlink(foreign, scratch(name));
    const std::string linked = makeFile("linked", "precious");
    std::filesystem::create_hard_link(linked, scratch("stderr_" + std::to_string(number)));
    EXPECT_EQ(run(shellCommand("echo mine")).out, "mine\n");
    EXPECT_EQ(contentOf(foreign), "precious");
    EXPECT_EQ(contentOf(linked), "precious");
}

TEST_F(LaunchStreams, CaptureWithoutAPrivateDirectoryFails) {
    platform_.privateDirectory.error = EPERM;
    ExecRequest request = shellCommand("true");
    request.captureOutput = true;
    EXPECT_EQ(errorOf(launch(request)), "unable to initialize stdout and stderr paths");
}

TEST_F(LaunchStreams, CaptureWinsOverOutputPaths) {
    ExecRequest request = shellCommand("echo captured; echo too >&2");
    request.stdoutPath = makeFile("out", "old");
    request.stderrPath = makeFile("err", "old");
    const ProgramEnd end = run(request);
    EXPECT_EQ(end.out, "captured\n");
    EXPECT_EQ(end.err, "too\n");
    EXPECT_EQ(contentOf(scratch("out")), "old");
    EXPECT_EQ(contentOf(scratch("err")), "old");
}

TEST_F(LaunchStreams, InputDataIsReadToItsEndWhateverItsSize) {
    for (const std::size_t size : {0UL, 1UL, 65535UL, 65536UL, 65537UL, 1UL << 20}) {
        ExecRequest request = shellCommand("cat");
        std::string data(size, '\0');
        for (std::size_t index = 0; index < size; ++index) {
            data[index] = static_cast<char>(index * 7 % 251);
        }
        request.inputData = data;
        EXPECT_TRUE(run(request).out == data) << size;
    }
}

/// So that the program's end cannot be reaped before its record is stored.
TEST_F(LaunchStreams, LockIsHeldUntilTheInputIsWrittenAndTheRecordStored) {
    ASSERT_EQ(::mkfifo(scratch("gate").c_str(), 0600), 0);
    ExecRequest request = shellCommand("read line <" + scratch("gate") + "; exec cat");
    request.inputData = std::string(1 << 20, 'x');
    request.captureOutput = true;
    pid_t pid = -1;
    std::thread launching([&] { pid = pidOf(launch(request)); });
    DescriptorGuard gate(::open(scratch("gate").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(processTableLock.try_lock());
    gate.closeNow();
    launching.join();
    EXPECT_TRUE(processTableLock.try_lock());
    processTableLock.unlock();
    EXPECT_EQ(processTable.at(pid)->pid, pid);
    EXPECT_EQ(endOf(pid).out.size(), request.inputData->size());
}

TEST_F(LaunchStreams, OutputPathThatHasVanishedIsMadeForUsAlone) {
    ExecRequest request = shellCommand("echo new");
    request.stdoutPath = scratch("new");
    endOf(pidOf(launch(request)));
    EXPECT_EQ(contentOf(scratch("new")), "new\n");
    struct stat status {};
    ::stat(scratch("new").c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(LaunchStreams, ProgramThatEndsWithoutReadingItsInputHoldsNobody) {
    ExecRequest request = shellCommand("exit 4");
    request.inputData = std::string(1 << 20, 'x');
    EXPECT_EQ(run(request).status, 4 << 8);
}

TEST_F(LaunchStreams, InputDataWinsOverAnInputPathWhichIsNotOpened) {
    ExecRequest request = shellCommand("cat");
    request.inputData = "data";
    request.stdinPath = scratch("not there");
    request.terminalSettings = TerminalSettings{};
    EXPECT_EQ(run(request).out, "data");
    EXPECT_TRUE(platform_.terminals.applied.empty());
}

TEST_F(LaunchStreams, InputPipeThatCannotBeMadeIsSaidSo) {
    EXPECT_EQ(exitStatusOf([] {
                  ExecRequest request = shellCommand("true");
                  request.inputData = "data";
                  const int next = ::dup(STDIN_FILENO);
                  const rlimit limit{static_cast<rlim_t>(next), static_cast<rlim_t>(next)};
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  const std::string error = errorOf(launch(std::move(request)));
                  ::_exit(error == "unable to allocate stdin pipe" ? 0 : 1);
              }),
              0);
}

TEST_F(LaunchStreams, InputPathIsOpenedForBothWaysWithoutBlocking) {
    ExecRequest request = shellCommand("cat; grep flags /proc/self/fdinfo/0 >&2");
    request.stdinPath = makeFile("in", "from a file");
    const ProgramEnd end = run(request);
    EXPECT_EQ(end.out, "from a file");
    const unsigned long flags = std::stoul(end.err.substr(end.err.find(':') + 1), nullptr, 8);
    EXPECT_EQ(flags & static_cast<unsigned>(O_ACCMODE | O_NONBLOCK),
              static_cast<unsigned>(O_RDWR | O_NONBLOCK));
}

TEST_F(LaunchStreams, InputPathThatCannotBeOpenedIsNamed) {
    ExecRequest request = shellCommand("true");
    request.stdinPath = scratch("not there");
    EXPECT_EQ(errorOf(launch(request)), cannotOpen(scratch("not there"), ENOENT));
}

TEST_F(LaunchStreams, InputTerminalGetsItsSizeAndSettings) {
    auto terminal = platform_.terminals.openPair({}, {}).take();
    platform_.terminals.applied.clear();
    ExecRequest request = shellCommand("stty size");
    request.stdinPath = "/proc/self/fd/" + std::to_string(terminal.slave.borrow());
    request.windowSize = winsize{43, 101, 0, 0};
    request.terminalSettings = TerminalSettings{};
    request.terminalSettings->c_lflag = 77;
    EXPECT_EQ(run(request).out, "43 101\n");
    ASSERT_EQ(platform_.terminals.applied.size(), 1U);
    EXPECT_EQ(platform_.terminals.applied[0].c_lflag, 77U);
}

TEST_F(LaunchStreams, FailuresToSetUpAnInputTerminalNameTheProgram) {
    ExecRequest request;
    request.path = "/bin/the-program";
    request.stdinPath = makeFile("in", "");
    request.windowSize = winsize{};
    EXPECT_EQ(errorOf(launch(request)),
              "failed to update window size for /bin/the-program: Inappropriate ioctl for device");
    request.windowSize.reset();
    request.terminalSettings = TerminalSettings{};
    platform_.terminals.applyError = EIO;
    EXPECT_EQ(errorOf(launch(request)),
              "failed to update termios for /bin/the-program: Input/output error");
}

TEST_F(LaunchStreams, SizeAndSettingsAreForAnInputPathAlone) {
    ExecRequest request = shellCommand("true");
    request.windowSize = winsize{};
    request.terminalSettings = TerminalSettings{};
    EXPECT_EQ(run(request).status, 0);
    EXPECT_TRUE(platform_.terminals.applied.empty());
}

TEST_F(LaunchStreams, OutputPathsAreEmptiedAndWritten) {
    ExecRequest request = shellCommand("echo out; echo err >&2");
    request.stdoutPath = makeFile("out", "much older text");
    request.stderrPath = makeFile("err", "much older text");
    endOf(pidOf(launch(request)));
    EXPECT_EQ(contentOf(scratch("out")), "out\n");
    EXPECT_EQ(contentOf(scratch("err")), "err\n");
}

TEST_F(LaunchStreams, OneOutputPathLeavesTheOtherOutputToTheNullDevice) {
    ExecRequest request;
    request.stdoutPath = makeFile("out", "");
    EXPECT_EQ(linksOf(request), (Lines{"/dev/null", scratch("out"), "/dev/null"}));
    request.stdoutPath.reset();
    request.stderrPath = makeFile("err", "");
    EXPECT_EQ(linksOf(request), (Lines{"/dev/null", "/dev/null", scratch("err")}));
}

TEST_F(LaunchStreams, OutputPathThatCannotBeOpenedIsNamed) {
    std::filesystem::create_directory(scratch("folder"));
    ExecRequest request = shellCommand("true");
    const std::size_t before = countDescriptors();
    request.stdoutPath = scratch("folder");
    EXPECT_EQ(errorOf(launch(request)), cannotOpen(scratch("folder"), EISDIR));
    request.stderrPath = request.stdoutPath;
    request.stdoutPath.reset();
    EXPECT_EQ(errorOf(launch(request)), cannotOpen(scratch("folder"), EISDIR));
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(LaunchStreams, OutputTerminalBecomesTheControllingTerminal) {
    auto terminal = platform_.terminals.openPair({}, {}).take();
    ExecRequest request = shellCommand("echo controlled >/dev/tty");
    request.stdoutPath = "/proc/self/fd/" + std::to_string(terminal.slave.borrow());
    EXPECT_EQ(endOf(pidOf(launch(request))).status, 0);
    std::array<char, 64> text{};
    ASSERT_GT(::read(terminal.master.borrow(), text.data(), text.size() - 1), 0);
    EXPECT_STREQ(text.data(), "controlled\r\n");
}

TEST_F(LaunchStreams, NoDescriptorStaysOpenAfterALaunch) {
    const std::size_t before = countDescriptors();
    ExecRequest request = shellCommand("cat");
    request.inputData = "x";
    endOf(pidOf(launch(request)));
    run(shellCommand("true"));
    EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
}  // namespace corvane
