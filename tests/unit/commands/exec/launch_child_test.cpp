// What a program finds when it starts.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

using Lines = std::vector<std::string>;

class LaunchChild : public ProgramTest {
 protected:
    std::string scratch() { return platform_.privateDirectory.prepare().value(); }

    /// A program in `folder` of the scratch directory.
    std::string makeProgram(const std::string& folder, const std::string& name,
                            const std::string& text, mode_t mode = 0755) {
        std::string directory = scratch() + "/" + folder;
        std::filesystem::create_directories(directory);
        const std::string path = directory + "/" + name;
        std::ofstream(path) << text;
        ::chmod(path.c_str(), mode);
        return directory;
    }

    static ExecRequest named(const std::string& path,
                             std::optional<std::vector<std::string>> environment = {}) {
        ExecRequest request;
        request.path = path;
        request.environment = std::move(environment);
        return request;
    }
};

constexpr int notStarted = 255 << 8;

TEST_F(LaunchChild, ArgumentsFollowThePathAsArgvZero) {
    const std::string directory =
        makeProgram("bin", "show", "#!/bin/sh\ncat /proc/$$/cmdline | tr '\\0' '\\n'\n");
    ExecRequest request = named(directory + "/show");
    request.arguments = {"-l", "", "two words"};
    EXPECT_EQ(linesOf(run(request).out),
              (Lines{"/bin/sh", directory + "/show", "-l", "", "two words"}));
    request = shellCommand("tr '\\0' '\\n' </proc/$$/cmdline");
    EXPECT_EQ(linesOf(run(request).out)[0], "/bin/sh");
}

TEST_F(LaunchChild, EnvironmentIsOursWithoutAListAndTheListWithOne) {
    ::setenv("CORVANE_TEST_VARIABLE", "inherited", 1);
    EXPECT_EQ(run(shellCommand("echo $CORVANE_TEST_VARIABLE")).out, "inherited\n");
    ExecRequest request = named("/usr/bin/env", Lines{"A=1", "B=two words", "odd"});
    EXPECT_EQ(run(request).out, "A=1\nB=two words\nodd\n");
    request = named("/usr/bin/env", Lines{});
    EXPECT_EQ(run(request).out, "");
}

TEST_F(LaunchChild, ProgramIsSearchedAlongThePathOfItsOwnEnvironment) {
    const std::string directory = makeProgram("bin", "only-here", "#!/bin/sh\necho found\n");
    EXPECT_EQ(run(named("only-here")).status, notStarted);
    EXPECT_EQ(run(named("only-here", Lines{"PATH=/nowhere:" + directory})).out, "found\n");
    EXPECT_EQ(run(named("only-here", Lines{"PATH=/nowhere", "PATH=" + directory})).status,
              notStarted)
        << "the first of several counts";
}

TEST_F(LaunchChild, WithoutPathTheDefaultSearchPathHolds) {
    EXPECT_EQ(run(named("ls", Lines{})).status, 0);
    EXPECT_EQ(run(named("ls", Lines{"PATH=/nowhere"})).status, notStarted);
}

TEST_F(LaunchChild, EmptyElementOfThePathIsTheCurrentDirectory) {
    ExecRequest request = named("here", Lines{"PATH=/nowhere:"});
    request.workingDirectory = makeProgram("bin", "here", "#!/bin/sh\necho here\n");
    EXPECT_EQ(run(request).out, "here\n");
    request.environment = Lines{"PATH="};
    EXPECT_EQ(run(request).out, "here\n");
    request.environment = Lines{"PATH=:/nowhere"};
    EXPECT_EQ(run(request).out, "here\n");
}

TEST_F(LaunchChild, SearchGoesOnPastWhatCannotBeRun) {
    const std::string first = makeProgram("first", "tool", "#!/bin/sh\necho first\n", 0644);
    const std::string file = makeProgram("plain", "file", "");
    const std::string second = makeProgram("second", "tool", "#!/bin/sh\necho second\n");
    const std::string path = "PATH=" + first + ":" + file + "/file:" + second;
    EXPECT_EQ(run(named("tool", Lines{path})).out, "second\n");
}

TEST_F(LaunchChild, NameWithASlashIsNotSearched) {
    ExecRequest request = named("bin/tool", Lines{"PATH=/nowhere"});
    makeProgram("bin", "tool", "#!/bin/sh\necho relative\n");
    request.workingDirectory = scratch();
    EXPECT_EQ(run(request).out, "relative\n");
}

TEST_F(LaunchChild, ScriptWithoutInterpreterLineIsRunByTheShell) {
    const std::string directory = makeProgram("bin", "script", "echo \"$0 $1\"\n");
    ExecRequest request = named(directory + "/script");
    request.arguments = {"argument"};
    EXPECT_EQ(run(request).out, directory + "/script argument\n");
    request = named("script", Lines{"PATH=" + directory});
    EXPECT_EQ(run(request).out, directory + "/script \n");
}

TEST_F(LaunchChild, ProgramThatCannotBeStartedEndsWithStatus255) {
    const std::string directory = makeProgram("bin", "plain", "text", 0644);
    for (const std::string& path :
         {std::string("/not/there"), std::string(), directory, directory + "/plain",
          std::string("no-such-program-anywhere"), std::string(300, 'x')}) {
        EXPECT_EQ(run(named(path)).status, notStarted) << path;
    }
}

TEST_F(LaunchChild, WorkingDirectoryIsEnteredAndOursStays) {
    const auto before = std::filesystem::current_path();
    ExecRequest request = shellCommand("pwd -P");
    EXPECT_EQ(run(request).out, before.string() + "\n");
    request.workingDirectory = "/usr/bin";
    EXPECT_EQ(run(request).out, std::filesystem::canonical("/usr/bin").string() + "\n");
    EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST_F(LaunchChild, WorkingDirectoryThatIsAFileEndsItWithStatus255) {
    ExecRequest request = shellCommand("true");
    request.workingDirectory = "/etc/passwd";
    EXPECT_EQ(run(request).status, notStarted);
}

TEST_F(LaunchChild, UserAndGroupAreChangedEachByItself) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may";
    }
    const std::string ids = "awk '/^(Uid|Gid|Groups):/ {print $2, $3, $4, $5}' /proc/self/status";
    ExecRequest request = shellCommand(ids);
    const Lines own = linesOf(run(request).out);
    ASSERT_EQ(own.size(), 3U);
    request.group = 7;
    EXPECT_EQ(linesOf(run(request).out), (Lines{own[0], "7 7 7 7", own[2]}));
    request.user = 12;
    EXPECT_EQ(linesOf(run(request).out), (Lines{"12 12 12 12", "7 7 7 7", own[2]}));
    request.group.reset();
    EXPECT_EQ(linesOf(run(request).out), (Lines{"12 12 12 12", own[1], own[2]}));
    EXPECT_EQ(::geteuid(), 0U) << "the agent stays what it is";
}

TEST_F(LaunchChild, WorkingDirectoryIsEnteredBeforeTheIdentityChanges) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may";
    }
    ExecRequest request = shellCommand("exit 5");
    request.user = 12;
    request.group = 7;
    request.workingDirectory = scratch();  // where only root may go
    EXPECT_EQ(run(request).status, 5 << 8);
}

/// What is shared with a program of another user could be changed by him.
TEST_F(LaunchChild, ChildWithAnotherIdentityDoesNotShareOurMemory) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may";
    }
    ExecRequest request = shellCommand("true");
    request.user = 12;
    EXPECT_EQ(run(request).status, 0);
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1) << "the kernel changes that with the identity";
}

TEST_F(LaunchChild, SupplementaryGroupsStay) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root may";
    }
    EXPECT_EQ(exitStatusOf([] {
                  const std::vector<gid_t> groups{3, 5};
                  if (::setgroups(groups.size(), groups.data()) != 0) {
                      ::_exit(1);
                  }
                  ExecRequest request = shellCommand(
                      "awk '/^Groups/ {print $2,$3,$4}' "
                      "/proc/self/status");
                  request.user = 12;
                  request.group = 7;
                  ::_exit(run(request).out == "3 5 \n" ? 0 : 1);
              }),
              0);
}

TEST_F(LaunchChild, IdentityThatMayNotBeTakenEndsItWithStatus255) {
    EXPECT_EQ(
        exitStatusOf([this] {
            ::chmod(scratch().c_str(), 0777);
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(0);
            }
            ExecRequest user = shellCommand("true");
            user.user = 0;
            ExecRequest group = shellCommand("true");
            group.group = 0;
            ::_exit(run(user).status == notStarted && run(group).status == notStarted ? 0 : 1);
        }),
        0);
}

TEST_F(LaunchChild, SignalsAreDefaultAndUnblocked) {
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    struct sigaction before {};
    ::sigaction(SIGUSR1, &ignored, &before);
    sigset_t usr2;
    ::sigemptyset(&usr2);
    ::sigaddset(&usr2, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &usr2, nullptr);
    const ProgramEnd end = run(shellCommand("grep -E '^Sig(Blk|Ign)' /proc/self/status"));
    EXPECT_EQ(end.out, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    sigset_t now;
    ::pthread_sigmask(SIG_UNBLOCK, &usr2, &now);
    EXPECT_EQ(::sigismember(&now, SIGUSR2), 1) << "our own mask is as it was";
    EXPECT_EQ(::sigismember(&now, SIGTERM), 0);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(LaunchChild, ProgramLeadsASessionOfItsOwn) {
    const ProgramEnd end = run(shellCommand("cut -d ' ' -f 1,5,6 /proc/$$/stat"));
    std::string expected = end.out.substr(0, end.out.find(' '));
    EXPECT_EQ(end.out, expected + " " + expected + " " + expected + "\n");
}

/// The agent leads a session without a terminal, as a service does.
TEST_F(LaunchChild, TerminalsThatAreStreamsDoNotBecomeOurOwn) {
    EXPECT_EQ(exitStatusOf([this] {
                  ::setsid();
                  auto terminal = platform_.terminals.openPair({}, {}).take();
                  const std::string path =
                      "/proc/self/fd/" + std::to_string(terminal.slave.borrow());
                  for (int stream = 0; stream < 3; ++stream) {
                      ExecRequest request = shellCommand("true");
                      (stream == 0   ? request.stdinPath
                       : stream == 1 ? request.stdoutPath
                                     : request.stderrPath) = path;
                      endOf(pidOf(launch(request)));
                  }
                  ::_exit(::open("/dev/tty", O_RDWR) < 0 && errno == ENXIO ? 0 : 1);
              }),
              0);
}

/// The numbers that tests/helpers/list_descriptors prints.
Lines descriptorsSeen(const std::string& out) {
    return linesOf(out);
}

TEST_F(LaunchChild, ProgramGetsNoneOfOurDescriptors) {
    const std::string listed = scratch() + "/listed";
    std::vector<std::unique_ptr<FILE, int (*)(FILE*)>> files;
    for (int count = 0; count < 50; ++count) {
        files.emplace_back(std::fopen("/dev/null", "r+e"), &std::fclose);
    }
    const DescriptorGuard leftOpen(::open("/dev/null", O_RDWR));  // inheritable
    ExecRequest other = shellCommand("cat");
    other.captureOutput = true;
    const pid_t running = pidOf(launch(shellCommand("exec sleep 1000")));
    ExecRequest capturing = shellCommand("exec sleep 1000");
    capturing.captureOutput = true;
    const pid_t alsoRunning = pidOf(launch(capturing));

    std::ofstream(listed).close();
    ExecRequest request = named(LIST_DESCRIPTORS_PATH);
    request.stdoutPath = listed;
    EXPECT_EQ(endOf(pidOf(launch(request))).status, 0);
    EXPECT_EQ(contentOf(listed), "0\n1\n2\n");

    request.inputData = "input";
    EXPECT_EQ(endOf(pidOf(launch(request))).status, 0);
    EXPECT_EQ(contentOf(listed), "0\n1\n2\n");
    for (const pid_t pid : {running, alsoRunning}) {
        ::kill(pid, SIGKILL);
        endOf(pid);
    }
}

TEST_F(LaunchChild, CapturingProgramKeepsItsOwnCaptureFilesAlone) {
    ExecRequest first = shellCommand("exec sleep 1000");
    first.captureOutput = true;
    const pid_t running = pidOf(launch(first));
    ExecRequest request = named(LIST_DESCRIPTORS_PATH);
    request.captureOutput = true;
    const pid_t pid = pidOf(launch(request));
    const int out = processTable.at(pid)->outFd;
    const int err = processTable.at(pid)->errFd;
    const Lines expected{"0", "1", "2", std::to_string(std::min(out, err)),
                         std::to_string(std::max(out, err))};
    EXPECT_EQ(descriptorsSeen(endOf(pid).out), expected);
    ::kill(running, SIGKILL);
    endOf(running);
}

}  // namespace
}  // namespace corvane
