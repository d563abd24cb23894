#include <string>

#include "tests/vm/exec_fixture.h"

namespace corvane::vm {
namespace {

class SignalsToPrograms : public ExecTest {
 protected:
    pid_t startSleeper(Arguments arguments = {}) {
        arguments["path"] = "/bin/sleep";
        arguments["arg"] = boost::json::array{"1000"};
        const pid_t pid = exec().start(arguments);
        awaitProgram(pid);
        return pid;
    }

    std::string resizeRefusal(pid_t pid) {
        return exec().refusalOf("mirel-guest-signal-pid",
                                {{"pid", pid},
                                 {"signal", 28},
                                 {"mirel-window-size", {{"rows", 50}, {"columns", 132}}}});
    }

    /// Starts a sleeper on a terminal that is not the agent's work; `before` comes before the
    /// command that does so.
    pid_t startOnForeignTerminal(const std::string& before = "") {
        return std::stoi(shell().check(before + "on-pty 24 80 /run/shown /bin/sleep 1000"));
    }

    std::string inputOf(pid_t pid) { return "/proc/" + std::to_string(pid) + "/fd/0"; }
    std::string sizeOf(pid_t pid) { return shell().check("stty size < " + inputOf(pid)); }
};

TEST_F(SignalsToPrograms, EndAProgram) {
    for (const int number : {1, 2, 9, 10, 15, 64}) {
        const pid_t pid = startSleeper();
        exec().signal(pid, number);
        EXPECT_EQ(exec().awaitExit(pid).signal, number);
        EXPECT_EQ(exec().refusalOf("mirel-guest-signal-pid", {{"pid", pid}, {"signal", number}}),
                  "failed to send signal to process " + std::to_string(pid) +
                      " with errno: No such process");
    }
}

TEST_F(SignalsToPrograms, ProgramsThatTheAgentDidNotStartAreReachedToo) {
    const std::string pid = shell().check("sleep 1000 >/dev/null 2>&1 & echo $!");
    exec().signal(std::stoi(pid), 0);
    exec().signal(std::stoi(pid), 15);
    awaitInGuest(
        "[ -e /proc/" + pid + " ] && grep -c '^State:.[^Z]' /proc/" + pid + "/status || echo 0",
        "0");
}

TEST_F(SignalsToPrograms, AWholeGroupIsReachedByItsNegativeNumber) {
    Arguments program = shellCommand("sleep 1000 & echo up; wait");
    program["capture-output"] = true;
    const pid_t pid = exec().start(program);
    exec().awaitOutput(pid, "up\n");
    exec().signal(-pid, 15);
    EXPECT_EQ(exec().awaitExit(pid).signal, 15);
    awaitInGuest("pidof sleep || true", "");
}

TEST_F(SignalsToPrograms, ArgumentsAreCheckedInTheirOrder) {
    const auto refusal = [this](const Arguments& arguments) {
        return exec().refusalOf("mirel-guest-signal-pid", arguments);
    };
    EXPECT_EQ(refusal({}), "signal is not a number");
    EXPECT_EQ(refusal({{"signal", 15}}), "pid is not a number");
    EXPECT_EQ(refusal({{"signal", 1000}, {"pid", 1}}),
              "failed to send signal to process 1 with errno: Invalid argument");
}

TEST_F(SignalsToPrograms, AResizeNeedsATerminalForInput) {
    const pid_t withPipe = startSleeper({{"input-data", ""}});
    EXPECT_EQ(resizeRefusal(withPipe), "failed to get path for file descriptor 0");
    end(withPipe);
    const pid_t withConnection = startOnVsock({{"path", "/bin/sleep"}, {"arg", {"1000"}}});
    awaitProgram(withConnection);
    EXPECT_EQ(resizeRefusal(withConnection), "failed to get path for file descriptor 0");
    end(withConnection);

    for (const char* path : {"/dev/null", "/etc/passwd"}) {
        const pid_t withFile = startSleeper({{"mirel-stdin", path}});
        const std::string refusal = resizeRefusal(withFile);
        EXPECT_TRUE(refusal.starts_with("failed to get window size for file descriptor "))
            << refusal;
        EXPECT_TRUE(refusal.ends_with(" with errno: Inappropriate ioctl for device")) << refusal;
        end(withFile);
    }
    EXPECT_EQ(resizeRefusal(999'999), "failed to get path for file descriptor 0");
}

TEST_F(SignalsToPrograms, AResizeChangesTheTerminalAndTheProgramIsTold) {
    const pid_t pid = startOnTerminal(
        shellCommand("trap 'stty size' WINCH; echo up; while :; do sleep 1000 & wait $!; done"));
    vsockPeer().await("up\r\n");
    EXPECT_EQ(resizeRefusal(pid), "");
    vsockPeer().await("50 132\r\n");
    // What is not given stays.
    exec().ask("mirel-guest-signal-pid",
               {{"pid", pid}, {"signal", 28}, {"mirel-window-size", {{"columns", 77}}}});
    vsockPeer().await("50 77\r\n");
    // Without a size there is only the signal.
    exec().signal(pid, 28);
    vsockPeer().await("50 77\r\n");
    EXPECT_EQ(exec().refusalOf("mirel-guest-signal-pid",
                               {{"pid", pid}, {"signal", 28}, {"mirel-window-size", 5}}),
              "mirel-window-size is not a dictionary");
    exec().signal(-pid, 9);
    EXPECT_EQ(exec().awaitExit(pid).signal, 9);
}

TEST_F(SignalsToPrograms, AResizeDoesNotNeedTheAgentsOwnTerminal) {
    const pid_t pid = startOnForeignTerminal();
    EXPECT_EQ(sizeOf(pid), "24 80");
    EXPECT_EQ(resizeRefusal(pid), "");
    EXPECT_EQ(sizeOf(pid), "50 132");
    shell().check("kill " + std::to_string(pid));
}

TEST_F(SignalsToPrograms, ATerminalOfAnotherMountNamespaceIsResizedAndNotItsNamesake) {
    // The first terminal of each file system is called /dev/pts/0. Earlier tests' are soon gone.
    awaitInGuest("ls /dev/pts", "ptmx");
    const pid_t ours = startOnForeignTerminal();
    const pid_t theirs = startOnForeignTerminal(
        "unshare -m sh -c 'mount -t devpts -o newinstance,ptmxmode=0666 devpts /dev/pts && "
        "mount --bind /dev/pts/ptmx /dev/ptmx && exec \"$@\"' sh ");
    ASSERT_EQ(shell().check("readlink " + inputOf(ours)), "/dev/pts/0");
    ASSERT_EQ(shell().check("readlink " + inputOf(theirs)), "/dev/pts/0");

    EXPECT_EQ(resizeRefusal(theirs), "");
    EXPECT_EQ(sizeOf(theirs), "50 132");
    EXPECT_EQ(sizeOf(ours), "24 80");
    shell().check("kill " + std::to_string(ours) + ' ' + std::to_string(theirs));
}

}  // namespace
}  // namespace corvane::vm
