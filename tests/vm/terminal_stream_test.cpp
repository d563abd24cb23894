#include <string>

#include "tests/vm/exec_fixture.h"

namespace corvane::vm {
namespace {

/// Bytes through the terminal relay.
class TerminalRelay : public ExecTest {
 protected:
    static std::string allBytes() {
        std::string bytes;
        for (int value = 0; value < 256; ++value) {
            bytes.push_back(static_cast<char>(value));
        }
        return bytes;
    }

    /// A program that echoes raw bytes; returns when its terminal is ready for them.
    pid_t startRawCat() { return startOnTerminal({{"path", "/bin/cat"}}, rawTerminal); }
};

TEST_F(TerminalRelay, TheProgramHasNoFurtherDescriptors) {
    const pid_t pid = startOnTerminal({{"path", "/usr/bin/list_descriptors"}});
    EXPECT_EQ(vsockPeer().receiveAll(), "0\r\n1\r\n2\r\n");
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(TerminalRelay, EveryByteValuePassesARawTerminalBothWays) {
    const pid_t pid = startRawCat();
    const std::string bytes = allBytes();
    vsockPeer().send(bytes);
    EXPECT_EQ(vsockPeer().receive(bytes.size()), bytes);
    // One at a time, too.
    for (const char byte : bytes) {
        vsockPeer().send({&byte, 1});
        ASSERT_EQ(vsockPeer().receive(1), std::string(1, byte));
    }
    vsockPeer().close();
    exec().awaitExit(pid);
}

TEST_F(TerminalRelay, LoadFromBothSidesLosesNoByte) {
    const pid_t pid = startRawCat();
    const std::string bytes = randomBytes(2'000'000);
    vsockPeer().send(bytes);
    const std::string returned = vsockPeer().receive(bytes.size());
    EXPECT_TRUE(returned == bytes);
    vsockPeer().close();
    exec().awaitExit(pid);
}

TEST_F(TerminalRelay, AProgramMayWriteMoreThanItReads) {
    // Whoever takes no output while input waits would wait for ever.
    const std::string bytes = randomBytes(500'000);
    const pid_t pid = startOnTerminal(shellCommand("head -c 500000 | xxd -p"), rawTerminal);
    vsockPeer().send(bytes);
    std::string digits = vsockPeer().receiveAll();
    std::erase(digits, '\n');
    ASSERT_EQ(digits.size(), 2 * bytes.size());
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        const auto value = std::stoul(digits.substr(2 * index, 2), nullptr, 16);
        ASSERT_EQ(value, static_cast<unsigned char>(bytes[index])) << "byte " << index;
    }
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(TerminalRelay, TheLastOutputBeforeTheEndArrivesWhole) {
    for (const int size : {1, 4'095, 4'096, 4'097, 100'000, 1'000'000}) {
        SCOPED_TRACE(size);
        const pid_t pid = startOnTerminal(
            shellCommand("head -c " + std::to_string(size) + " /dev/zero"), rawTerminal);
        const std::string output = vsockPeer().receiveAll();
        EXPECT_EQ(output.size(), static_cast<std::size_t>(size));
        EXPECT_EQ(output.find_first_not_of('\0'), std::string::npos);
        EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
    }
}

TEST_F(TerminalRelay, TheLastOutputArrivesWholeAlsoWhenTheHostsBytesAreNotRead) {
    shell().check("rm -f /run/gate; mkfifo /run/gate");
    const pid_t pid = startOnTerminal(
        shellCommand("echo up; read go </run/gate; head -c 1000000 /dev/zero"), rawTerminal);
    vsockPeer().await("up\n");
    vsockPeer().send(randomBytes(200'000));  // far more than a terminal holds
    shell().check("echo > /run/gate");
    EXPECT_EQ(vsockPeer().receiveAll().size(), 1'000'000U);
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(TerminalRelay, TheHostsWordsReachAProgramThatStartsLate) {
    shell().check("rm -f /run/gate; mkfifo /run/gate");
    const pid_t pid =
        startOnTerminal(shellCommand("read go </run/gate; read line; echo \"<$line>\""));
    vsockPeer().send("typed ahead\r");
    vsockPeer().await("typed ahead\r\n");  // the terminal's echo
    shell().check("echo > /run/gate");
    EXPECT_EQ(vsockPeer().receiveAll(), "<typed ahead>\r\n");
    EXPECT_EQ(exec().awaitExit(pid).exitCode, 0);
}

TEST_F(TerminalRelay, AHostThatVanishesEndsAProgramThatWrites) {
    const pid_t pid = startOnTerminal({{"path", "/bin/yes"}});
    vsockPeer().receive(100'000);
    vsockPeer().close();
    // Hung up while it writes, or told so by the write itself.
    const ProgramState state = exec().awaitExit(pid);
    EXPECT_TRUE(state.signal == 1 || state.exitCode == 1)
        << state.signal.value_or(0) << ' ' << state.exitCode.value_or(-1);
    awaitInGuest(countChildren(), "0");
}

TEST_F(TerminalRelay, AHostThatVanishesEndsAProgramThatOnlySleeps) {
    const pid_t pid = startOnTerminal({{"path", "/bin/sleep"}, {"arg", {"1000"}}});
    awaitProgram(pid);  // it has its terminal now
    vsockPeer().close();
    EXPECT_EQ(exec().awaitExit(pid).signal, 1);
    awaitInGuest(countChildren(), "0");
}

TEST_F(TerminalRelay, AHostThatVanishesWithBytesUnreadEndsTheProgram) {
    const pid_t pid = startOnTerminal({{"path", "/bin/sleep"}, {"arg", {"1000"}}}, rawTerminal);
    awaitProgram(pid);
    vsockPeer().send(randomBytes(100'000));
    vsockPeer().close();
    EXPECT_EQ(exec().awaitExit(pid).signal, 1);
    awaitInGuest(countChildren(), "0");
}

}  // namespace
}  // namespace corvane::vm
