#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/vm/exec_fixture.h"

namespace corvane::vm {
namespace {

constexpr const char* interruptKey = "\x03";
constexpr const char* suspendKey = "\x1A";

/// An interactive shell behind the terminal relay, as a person at the host uses it.
class ShellOnATerminal : public ExecTest {
 protected:
    void startShell(const WireTerminal& terminal = cookedTerminal) {
        shell_ = startOnTerminal({{"path", "/bin/sh"},
                                  {"arg", {"-i"}},
                                  {"env", {"PATH=/bin:/usr/bin", "TERM=dumb", "PS1=ready> "}}},
                                 terminal);
        awaitPrompt();
    }

    pid_t pid() const { return shell_; }

    std::string awaitPrompt() { return vsockPeer().await("ready> "); }

    /// Types a line and returns what the terminal shows up to the next prompt, the echo included.
    std::string type(const std::string& line) {
        vsockPeer().send(line + "\r");
        return awaitPrompt();
    }

    /// The same without the carriage returns before line feeds, as single words.
    std::vector<std::string> wordsOf(const std::string& line) {
        std::istringstream shown(type(line));
        std::vector<std::string> words;
        for (std::string word; shown >> word;) {
            words.push_back(word);
        }
        return words;
    }

    /// Starts a program in the foreground; returns when it has the terminal.
    void startInForeground(const std::string& program) {
        vsockPeer().send("sh -c 'echo u''p; exec " + program + "'\r");
        vsockPeer().await("up\r\n");
    }
    void startCat() { startInForeground("cat"); }

    void expectAlive() {
        EXPECT_NE(type("echo alive-$((40 + 2))").find("alive-42\r\n"), std::string::npos);
    }

    /// Leaves the shell and checks that nothing is left of it.
    void leave() {
        vsockPeer().send("exit 7\r");
        vsockPeer().receiveAll();
        const ProgramState state = exec().awaitExit(pid());
        EXPECT_EQ(state.exitCode, 7);
        awaitInGuest(countChildren(), "0");
    }

 private:
    pid_t shell_ = 0;
};

bool contains(const std::vector<std::string>& words, const std::vector<std::string>& wanted) {
    return std::search(words.begin(), words.end(), wanted.begin(), wanted.end()) != words.end();
}

TEST_F(ShellOnATerminal, HasATerminalOfTheSizeGivenAndEndsWithoutATrace) {
    const std::string descriptors = shell().check(countDescriptors());
    startShell();
    // The shell and its relay.
    EXPECT_EQ(shell().check(countChildren()), "2");
    EXPECT_NE(type("tty").find("/dev/pts/"), std::string::npos);
    EXPECT_NE(type("stty size").find("30 100\r\n"), std::string::npos);
    EXPECT_NE(type("echo text >/dev/tty").find("\ntext\r\n"), std::string::npos)
        << "it is the controlling terminal";
    leave();
    EXPECT_EQ(shell().check(countDescriptors()), descriptors);
    EXPECT_EQ(exec().refusalOf("guest-exec-status", {{"pid", pid()}}), "invalid PID");
}

TEST_F(ShellOnATerminal, HasTheSettingsGiven) {
    WireTerminal terminal = cookedTerminal;
    terminal.interrupt = 0x14;
    terminal.speed = 9600;
    terminal.localFlags &= ~bsdEcho;
    terminal.inputFlags &= ~bsdIxon;
    terminal.controlFlags = bsdCread | bsdCs7 | bsdParenb;
    startShell(terminal);
    const auto words = wordsOf("stty -a");
    const auto shows = [&words](const std::vector<std::string>& wanted) {
        return contains(words, wanted);
    };
    EXPECT_TRUE(shows({"speed", "9600", "baud;"}));
    EXPECT_TRUE(shows({"rows", "30;", "columns", "100;"}));
    EXPECT_TRUE(shows({"intr", "=", "^T;"}));
    EXPECT_TRUE(shows({"susp", "=", "^Z;"}));
    EXPECT_TRUE(shows({"eof", "=", "^D;"}));
    EXPECT_TRUE(shows({"eol", "=", "<undef>;"}));
    for (const char* flag : {"-echo", "-ixon", "icrnl", "opost", "onlcr", "isig", "icanon",
                             "iexten", "echoe", "echok", "-tostop", "cread", "-hupcl", "-cstopb"}) {
        EXPECT_TRUE(shows({flag})) << flag;
    }
    // A pseudo-terminal takes neither other sizes of characters nor parity.
    EXPECT_TRUE(shows({"cs8"}));
    if (HasFailure()) {
        for (const std::string& word : words) {
            std::cerr << word << ' ';
        }
    }
    leave();
}

TEST_F(ShellOnATerminal, HasTheUsualSettings) {
    startShell();
    const auto words = wordsOf("stty -a");
    for (const char* flag :
         {"echo", "ixon", "icrnl", "opost", "onlcr", "isig", "icanon", "hupcl"}) {
        EXPECT_TRUE(contains(words, {flag})) << flag;
    }
    EXPECT_TRUE(contains(words, {"intr", "=", "^C;"}));
    EXPECT_TRUE(contains(words, {"speed", "38400", "baud;"}));
    leave();
}

TEST_F(ShellOnATerminal, TheInterruptKeyEndsTheForegroundProgramAlone) {
    startShell();
    for (int round = 0; round < 3; ++round) {
        startCat();
        vsockPeer().send(interruptKey);
        awaitPrompt();
        expectAlive();
    }
    leave();
}

TEST_F(ShellOnATerminal, AnotherInterruptKeyTakesTheOldOnesPlace) {
    WireTerminal terminal = cookedTerminal;
    terminal.interrupt = 0x14;
    startShell(terminal);
    startCat();
    vsockPeer().send("\x03\r");
    // Both the echo of the key and the line that cat writes back: the byte itself.
    vsockPeer().await("\x03\r\n");
    vsockPeer().send("\x14");
    awaitPrompt();
    expectAlive();
    leave();
}

TEST_F(ShellOnATerminal, JobsAreStoppedListedAndContinued) {
    startShell();
    startCat();
    vsockPeer().send(suspendKey);
    awaitPrompt();
    EXPECT_NE(type("jobs").find("Stopped"), std::string::npos);
    vsockPeer().send("fg\r");
    vsockPeer().await("cat");  // the shell names the job that it brings back
    vsockPeer().await("\r\n");
    vsockPeer().send("word\r");
    vsockPeer().await("word\r\n");  // the echo
    vsockPeer().await("word\r\n");  // cat
    vsockPeer().send(interruptKey);
    awaitPrompt();
    EXPECT_EQ(type("jobs").find("Stopped"), std::string::npos);
    leave();
}

TEST_F(ShellOnATerminal, ANewSizeReachesTheShellAndTheProgramInIt) {
    startShell();
    exec().ask(
        "mirel-guest-signal-pid",
        {{"pid", pid()}, {"signal", 28}, {"mirel-window-size", {{"rows", 50}, {"columns", 132}}}});
    // The shell may draw its prompt anew: what counts is what comes after the answer.
    vsockPeer().send("stty size\r");
    vsockPeer().await("50 132\r\n");
    awaitPrompt();

    vsockPeer().send(
        "sh -c 'trap \"stty size\" WINCH; echo u''p; while :; do sleep 1000 & wait $!; done'\r");
    vsockPeer().await("up\r\n");
    exec().ask("mirel-guest-signal-pid",
               {{"pid", pid()}, {"signal", 28}, {"mirel-window-size", {{"rows", 11}}}});
    vsockPeer().await("11 132\r\n");
    vsockPeer().send(interruptKey);
    awaitPrompt();
    type("kill $(pidof sleep)");
    leave();
}

TEST_F(ShellOnATerminal, IsHungUpWhenTheHostVanishes) {
    startShell();
    // Whoever reads may see the end of its input before the signal.
    startInForeground("sleep 1000");
    vsockPeer().close();
    EXPECT_EQ(exec().awaitExit(pid()).signal, 1);
    awaitInGuest(countChildren(), "0");
    awaitInGuest("pidof sleep || true", "");
}

TEST_F(ShellOnATerminal, ItsEndIsTheEndOfTheConnectionAlsoWhenItIsKilled) {
    startShell();
    exec().signal(pid(), 9);
    vsockPeer().receiveAll();
    EXPECT_EQ(exec().awaitExit(pid()).signal, 9);
    awaitInGuest(countChildren(), "0");
}

}  // namespace
}  // namespace corvane::vm
