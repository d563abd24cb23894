#include <string>

#include "tests/vm/exec_fixture.h"

namespace corvane::vm {
namespace {

class ProgramsOnVsock : public ExecTest {};

TEST_F(ProgramsOnVsock, TheConnectionIsAllThreeStreams) {
    const pid_t pid = startOnVsock(
        shellCommand("read line; echo \"out $line\"; echo \"error $line\" >&2; exit 3"));
    vsockPeer().send("hello\n");
    EXPECT_EQ(vsockPeer().receiveAll(), "out hello\nerror hello\n");
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 3);
}

TEST_F(ProgramsOnVsock, HasNoFurtherDescriptors) {
    const pid_t pid = startOnVsock({{"path", "/usr/bin/list_descriptors"}});
    EXPECT_EQ(vsockPeer().receiveAll(), "0\n1\n2\n");
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(ProgramsOnVsock, TenMegabytesPassBothWaysWhole) {
    const std::string bytes = randomBytes(10'000'000);
    const pid_t pid = startOnVsock({{"path", "/bin/cat"}});
    vsockPeer().send(bytes);
    vsockPeer().finishSending();
    const std::string returned = vsockPeer().receiveAll();
    EXPECT_EQ(returned.size(), bytes.size());
    EXPECT_TRUE(returned == bytes);
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(ProgramsOnVsock, AHostIsToldWhenTheProgramEndsWhateverItStillSends) {
    const pid_t pid = startOnVsock(shellCommand("echo bye"));
    EXPECT_EQ(vsockPeer().receiveAll(), "bye\n");
    vsockPeer().send(std::string(1'000'000, 'x'));
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(ProgramsOnVsock, AProgramThatReadsSeesTheHostsDeparture) {
    const pid_t pid = startOnVsock(shellCommand("cat > /run/received; exit 9"));
    vsockPeer().send("last words");
    awaitInGuest("cat /run/received 2>/dev/null; true", "last words");
    vsockPeer().close();
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 9);
    shell().check("rm /run/received");
}

TEST_F(ProgramsOnVsock, AProgramThatWritesEndsAtTheHostsDeparture) {
    const pid_t pid = startOnVsock({{"path", "/bin/yes"}});
    vsockPeer().receive(100'000);
    vsockPeer().close();
    // Its write fails. Kernels of today do not send SIGPIPE for vsock.
    const ProgramState state = exec().awaitExit(pid);
    EXPECT_TRUE(state.exitCode == 1 || state.signal == 13)
        << state.exitCode.value_or(-1) << ' ' << state.signal.value_or(0);
}

TEST_F(ProgramsOnVsock, ALaterProgramDoesNotKeepTheConnectionOpen) {
    const pid_t pid = startOnVsock({{"path", "/bin/cat"}});
    const pid_t later = exec().start({{"path", "/bin/sleep"}, {"arg", {"1000"}}});
    vsockPeer().finishSending();
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
    EXPECT_EQ(vsockPeer().receiveAll(), "");
    end(later);
}

TEST_F(ProgramsOnVsock, NobodyListening) {
    // A port that was listened on a moment ago, beyond sixteen bits.
    const std::string address = "vsock://2:" + std::to_string(vsockPeer().listen());
    vsockPeer().close();
    EXPECT_EQ(
        exec().refusalOf("guest-exec", {{"path", "/bin/cat"}, {"mirel-vsock-stdio", address}}),
        "failed to to connect to '" + address + "': Connection reset by peer");
    EXPECT_EQ(exec().refusalOf("guest-exec", {{"path", "/bin/cat"},
                                              {"mirel-vsock-stdio", "vsock://77:4294967294"}}),
              "failed to to connect to 'vsock://77:4294967294': No such device");
}

TEST_F(ProgramsOnVsock, IsExclusiveWithOtherStreams) {
    const std::string expected = "mirel-vsock-stdio is mutually exclusive with other stdio flags";
    const auto refusal = [this](Arguments arguments) {
        arguments["path"] = "/bin/cat";
        arguments["mirel-vsock-stdio"] = "vsock://2:70000";
        return exec().refusalOf("guest-exec", arguments);
    };
    EXPECT_EQ(refusal({{"capture-output", true}}), expected);
    EXPECT_EQ(refusal({{"input-data", ""}}), expected);
    EXPECT_EQ(refusal({{"mirel-stdout", "/dev/null"}}), expected);
}

TEST_F(ProgramsOnVsock, WithoutAWindowSizeThereIsNoTerminal) {
    Arguments program = shellCommand("tty; echo $?");
    program["mirel-termios"] = cookedTerminal.record();
    const pid_t pid = startOnVsock(program);
    EXPECT_EQ(vsockPeer().receiveAll(), "not a tty\n1\n");
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

class ProgramsWithoutVsock : public SharedGuestTest {};

TEST_F(ProgramsWithoutVsock, AreRefusedWhenTheyAreToUseIt) {
    HostClient host = synchronisedHost();
    ExecClient exec(host);
    EXPECT_EQ(shell().check("ls /dev/vsock 2>/dev/null; grep -c ^vsock /proc/modules || true"),
              "0");
    EXPECT_EQ(exec.refusalOf("guest-exec",
                             {{"path", "/bin/cat"}, {"mirel-vsock-stdio", "vsock://2:70000"}}),
              "vsock transport not available");
}

}  // namespace
}  // namespace corvane::vm
