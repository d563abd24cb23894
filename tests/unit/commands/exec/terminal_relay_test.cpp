// The relay between a connection, here a socketpair, and a program's terminal.

#include "commands/exec/terminal_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

/// A session as a host has it.
class TerminalRelay : public ProgramTest {
 protected:
    TerminalRelay() { platform_.vsockSockets.createError = 0; }

    /// Starts `command` behind a relay.
    pid_t start(const std::string& command) {
        ExecRequest request = shellCommand(command);
        request.vsockTarget = VsockTarget{2, 5000};
        request.terminalSettings = TerminalSettings{};
        request.windowSize = winsize{31, 97, 0, 0};
        return pidOf(launch(std::move(request)));
    }

    [[nodiscard]] int hostEnd() const { return platform_.vsockSockets.hostEnds.back().borrow(); }
    void hangUp() { platform_.vsockSockets.hostEnds.clear(); }

    void type(const std::string& text) const {
        ASSERT_EQ(::write(hostEnd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    /// All that comes up to `end`, or up to the end of the session for "".
    std::string readUntil(const std::string& end) {
        std::array<char, 65536> piece;
        std::size_t found = std::string::npos;
        while (end.empty() || (found = seen_.find(end)) == std::string::npos) {
            const ssize_t count = ::read(hostEnd(), piece.data(), piece.size());
            if (count <= 0) {
                return std::exchange(seen_, {});
            }
            seen_.append(piece.data(), static_cast<std::size_t>(count));
        }
        std::string text = seen_.substr(0, found + end.size());
        seen_.erase(0, text.size());
        return text;
    }

    /// Waits for every child of this process, relays among them.
    static bool allChildrenEnd() {
        while (::waitpid(-1, nullptr, 0) > 0) {
        }
        return errno == ECHILD;
    }

 private:
    std::string seen_;
};

TEST_F(TerminalRelay, ProgramSitsAtATerminalOfTheGivenSize) {
    const pid_t pid = start("tty; stty size; echo done");
    const std::string text = readUntil("");
    EXPECT_EQ(text.substr(0, 9), "/dev/pts/");
    EXPECT_NE(text.find("31 97\r\ndone\r\n"), std::string::npos) << text;
    EXPECT_EQ(endOf(pid).status, 0);
    EXPECT_EQ(platform_.terminals.applied.size(), 1U);
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(TerminalRelay, TerminalIsTheControllingTerminalAndAllThreeStreams) {
    const pid_t pid = start("test -t 0 && test -t 1 && test -t 2 && echo yes >/dev/tty");
    EXPECT_EQ(readUntil(""), "yes\r\n");
    EXPECT_EQ(endOf(pid).status, 0);
}

TEST_F(TerminalRelay, PassesLinesBothWays) {
    const pid_t pid = start("stty -echo; echo ready; while read line; do echo \"<$line>\"; done");
    readUntil("ready\r\n");
    for (int count = 0; count < 100; ++count) {
        type("line " + std::to_string(count) + "\n");
        EXPECT_EQ(readUntil(">\r\n"), "<line " + std::to_string(count) + ">\r\n");
    }
    hangUp();
    EXPECT_EQ(endOf(pid).status & 0x7f, SIGHUP) << "the session ends with the connection";
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(TerminalRelay, ControlCharacterReachesTheForegroundProgram) {
    const pid_t pid =
        start("trap 'echo caught; exit 5' INT; echo ready; while :; do sleep 1; done");
    readUntil("ready\r\n");
    type("\x03");
    EXPECT_NE(readUntil("").find("caught"), std::string::npos);
    EXPECT_EQ(endOf(pid).status, 5 << 8);
}

TEST_F(TerminalRelay, DeliversWhatTheProgramWroteLast) {
    for (int round = 0; round < 20; ++round) {
        const pid_t pid = start("stty -opost; head -c 100000 /dev/zero | tr '\\0' x; echo end");
        const std::string text = readUntil("");
        EXPECT_EQ(text.size(), 100004U);
        EXPECT_TRUE(text.ends_with("end\n"));
        endOf(pid);
        EXPECT_TRUE(allChildrenEnd());
        hangUp();
    }
}

/// The host types at the moment at which the program ends: what it wrote last still comes.
TEST_F(TerminalRelay, DeliversTheLastOutputWhileTheHostGoesOnTyping) {
    for (int round = 0; round < 20; ++round) {
        const pid_t pid = start("stty raw -echo; echo ready; head -c 50000 /dev/zero | tr '\\0' x");
        readUntil("ready\n");
        std::thread typist([host = hostEnd()] {
            while (::send(host, "keys", 4, MSG_NOSIGNAL) > 0) {
            }
        });
        EXPECT_EQ(readUntil("").size(), 50000U);
        endOf(pid);
        typist.join();
        EXPECT_TRUE(allChildrenEnd());
        hangUp();
    }
}

/// Both directions full at the same time: a relay that waited for one of them would never move.
TEST_F(TerminalRelay, PassesEveryByteWhileBothSidesWrite) {
    const pid_t pid = start("stty raw -echo; echo ready; exec cat");
    readUntil("ready\n");
    std::string sent(2 << 20, '\0');
    for (std::size_t index = 0; index < sent.size(); ++index) {
        sent[index] = static_cast<char>(index * 31 + index / 256);
    }
    std::thread typist([&, host = hostEnd()] {
        for (std::string_view rest = sent; !rest.empty();) {
            const ssize_t count = ::send(host, rest.data(), rest.size(), MSG_NOSIGNAL);
            ASSERT_GT(count, 0);
            rest.remove_prefix(static_cast<std::size_t>(count));
        }
    });
    std::string received;
    std::array<char, 65536> piece;
    while (received.size() < sent.size()) {
        const ssize_t count = ::read(hostEnd(), piece.data(), piece.size());
        ASSERT_GT(count, 0);
        received.append(piece.data(), static_cast<std::size_t>(count));
    }
    typist.join();
    EXPECT_TRUE(received == sent);
    hangUp();
    endOf(pid);
    EXPECT_TRUE(allChildrenEnd());
}

/// This process's child that is not `other`.
pid_t childBeside(pid_t other) {
    const std::string self = std::to_string(::getpid());
    std::istringstream children(contentOf("/proc/self/task/" + self + "/children"));
    for (pid_t child = 0; children >> child;) {
        if (child != other) {
            return child;
        }
    }
    return -1;
}

/// A single letter: proc(5), /proc/PID/stat.
char stateOf(pid_t pid) {
    const std::string stat = contentOf("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() ? '?' : stat[stat.rfind(')') + 2];
}

/// How many of a thousand looks find the process asleep, from the first such on: until then a busy
/// machine may have had no time for it.
int sleepsOf(pid_t pid) {
    int sleeps = 0;
    while (stateOf(pid) != 'S') {
        ::sched_yield();
    }
    for (int looks = 0; looks < 1000; ++looks) {
        sleeps += stateOf(pid) == 'S' ? 1 : 0;
        ::sched_yield();
    }
    return sleeps;
}

/// Sends until nothing more goes in and the processes on the way have come to rest.
void sendUntilStandstill(int descriptor, std::initializer_list<pid_t> processes) {
    const std::string piece(4096, 'x');
    for (int quiet = 0; quiet < 200; ++quiet) {
        for (const pid_t process : processes) {
            if (stateOf(process) != 'S') {
                quiet = 0;
            }
        }
        if (::send(descriptor, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
            quiet = 0;
        }
        ::sched_yield();
    }
}

/// A host that has sent more than the program reads, and has vanished: the hang-up is reported for
/// as long as the relay asks for it. The relay has patience.
TEST_F(TerminalRelay, SleepsWhileTheProgramDoesNotReadWhatAVanishedHostHasSent) {
    const pid_t pid = start("stty raw -echo; echo ready; exec sleep 1000");
    readUntil("ready\n");
    const pid_t relay = childBeside(pid);
    sendUntilStandstill(hostEnd(), {relay});
    hangUp();
    EXPECT_GT(sleepsOf(relay), 500);
    ::kill(pid, SIGTERM);
    endOf(pid);
    EXPECT_TRUE(allChildrenEnd());
}

/// A host that is there but does not read, and a program that has ended with its output under way:
/// the terminal's hang-up is reported for as long as the relay asks for it.
TEST_F(TerminalRelay, SleepsWhileTheHostDoesNotReadWhatAnEndedProgramHasWritten) {
    const pid_t pid = start("stty raw -echo; echo ready; exec cat /dev/zero");
    readUntil("ready\n");
    const pid_t relay = childBeside(pid);
    sendUntilStandstill(hostEnd(), {relay, pid});
    ::kill(pid, SIGKILL);
    awaitEnd(pid);
    EXPECT_GT(sleepsOf(relay), 500);
    EXPECT_GT(readUntil("").size(), 100000U) << "and then it comes";
    endOf(pid);
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(TerminalRelay, HangUpRightAfterTheAnswerReachesTheProgram) {
    for (int round = 0; round < 50; ++round) {
        const pid_t pid = start("exec sleep 1000");
        hangUp();
        EXPECT_EQ(endOf(pid).status & 0x7f, SIGHUP);
        EXPECT_TRUE(allChildrenEnd());
    }
}

TEST_F(TerminalRelay, ResizeRightAfterTheAnswerReachesTheTerminal) {
    for (int round = 0; round < 50; ++round) {
        const pid_t pid = start("exec sleep 1000");
        const std::string input = "/proc/" + std::to_string(pid) + "/fd/0";
        EXPECT_EQ(std::filesystem::read_symlink(input).string().substr(0, 9), "/dev/pts/");
        hangUp();
        endOf(pid);
        EXPECT_TRUE(allChildrenEnd());
    }
}

TEST_F(TerminalRelay, HoldsNothingOfTheAgentsOpen) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const pid_t pid = start("exec sleep 1000");
    ::close(ends[1]);
    char byte = 0;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0) << "the relay holds no copy of the write end";
    ::close(ends[0]);
    hangUp();
    endOf(pid);
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(TerminalRelay, WorksWithDescriptorsAboveThoseThatSelectCanTake) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1200);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<DescriptorGuard> fillers;
    do {
        fillers.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (fillers.back().borrow() <= 1024);
    const pid_t pid = start("read line; echo \"<$line>\"");
    type("word\n");
    EXPECT_NE(readUntil("").find("<word>"), std::string::npos);
    EXPECT_EQ(endOf(pid).status, 0);
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(TerminalRelay, LeadsASessionOfItsOwn) {
    const pid_t pid = start("exec sleep 1000");
    const pid_t relay = childBeside(pid);
    while (stateOf(relay) != 'S') {
    }
    EXPECT_EQ(::getsid(relay), relay);
    ::kill(pid, SIGKILL);
    endOf(pid);
    EXPECT_TRUE(allChildrenEnd());
}

/// More than the ways in both directions hold together when nobody takes anything at their end.
const std::string tooMuch(100000, 'x');

/// Runs the relay alone between two socketpairs; gives the far ends. What the relay writes fits in
/// there for a few kilobytes only.
struct BareRelay {
    explicit BareRelay(int patience = -1, int started = ::open("/dev/null", O_RDONLY)) {
        std::array<int, 2> left{};
        std::array<int, 2> right{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, left.data()) != 0 ||
            ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, right.data()) != 0) {
            ADD_FAILURE() << "no socketpairs";
        }
        for (const int relaysEnd : {left[1], right[1]}) {
            const int least = 1;  // what the kernel makes of it
            ::setsockopt(relaysEnd, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
        }
        pid = ::fork();
        if (pid == 0) {
            runTerminalRelay(left[1], right[1], started, patience);
        }
        ::close(left[1]);
        ::close(right[1]);
        ::close(started);
        host = DescriptorGuard(left[0]);
        program = DescriptorGuard(right[0]);
    }

    void tellProgram(const std::string& text) const {
        ASSERT_EQ(::write(host.borrow(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    int exitStatus() const {
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t pid = -1;
    DescriptorGuard host;
    DescriptorGuard program;
};

TEST(BareTerminalRelay, EndOfTheConnectionEndsItAfterEverythingBeforeWasPassedOn) {
    BareRelay relay;
    const std::string& text = tooMuch;
    relay.tellProgram(text);
    relay.host.closeNow();
    std::string received;
    std::array<char, 4096> piece;
    for (ssize_t count = 0;
         (count = ::read(relay.program.borrow(), piece.data(), piece.size())) > 0;) {
        received.append(piece.data(), static_cast<std::size_t>(count));
    }
    EXPECT_EQ(received.size(), text.size());
    EXPECT_EQ(relay.exitStatus(), 0);
}

TEST(BareTerminalRelay, EndOfTheTerminalEndsItAfterEverythingBeforeWasPassedOn) {
    BareRelay relay;
    const std::string& text = tooMuch;
    ASSERT_EQ(::write(relay.program.borrow(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    relay.program.closeNow();
    std::string received;
    std::array<char, 4096> piece;
    for (ssize_t count = 0;
         (count = ::read(relay.host.borrow(), piece.data(), piece.size())) > 0;) {
        received.append(piece.data(), static_cast<std::size_t>(count));
    }
    EXPECT_EQ(received.size(), text.size());
    EXPECT_EQ(relay.exitStatus(), 0);
}

TEST(BareTerminalRelay, FailedWriteIsItsExitStatusAndTheOtherDirectionIsFinished) {
    BareRelay relay;
    ::shutdown(relay.program.borrow(), SHUT_RD);
    ASSERT_EQ(::write(relay.host.borrow(), "x", 1), 1);
    ASSERT_EQ(::write(relay.program.borrow(), "last", 4), 4);
    std::array<char, 4> text{};
    EXPECT_EQ(::recv(relay.host.borrow(), text.data(), 4, MSG_WAITALL), 4);
    relay.program.closeNow();
    EXPECT_EQ(relay.exitStatus(), EPIPE);
}

TEST(BareTerminalRelay, GivesAVanishedHostUpWhenTheTerminalTakesNothingForAsLongAsItsPatience) {
    BareRelay relay(50);
    relay.tellProgram(tooMuch);
    relay.host.closeNow();
    EXPECT_EQ(relay.exitStatus(), 0) << "though the program's end is open";
}

TEST(BareTerminalRelay, WaitsForTheProgramWithoutLimitWhileTheHostIsThere) {
    BareRelay relay(1);
    relay.tellProgram(tooMuch);
    ::shutdown(relay.host.borrow(), SHUT_WR);  // it still listens
    // Patience runs out many times before the program has taken everything, and wakes it.
    std::string received;
    std::array<char, 128> piece;
    while (received.size() < tooMuch.size()) {
        const ssize_t count = ::read(relay.program.borrow(), piece.data(), piece.size());
        ASSERT_GT(count, 0);
        received.append(piece.data(), static_cast<std::size_t>(count));
        ::poll(nullptr, 0, received.size() < 16384 ? 1 : 0);
    }
    EXPECT_EQ(received, tooMuch);
    EXPECT_EQ(relay.exitStatus(), 0);
}

TEST(BareTerminalRelay, OutputThatTheHostDoesNotTakeAnyMoreEndsItWithTheError) {
    BareRelay relay;
    relay.tellProgram(tooMuch);  // so that it is not the end of input that ends it
    relay.host.closeNow();
    ASSERT_EQ(::write(relay.program.borrow(), "x", 1), 1);
    EXPECT_EQ(relay.exitStatus(), EPIPE);
}

TEST(BareTerminalRelay, LastOutputThatTheHostDoesNotTakeEndsItWithTheError) {
    std::array<int, 2> started{};
    ASSERT_EQ(::pipe2(started.data(), O_CLOEXEC), 0);
    BareRelay relay(-1, started[0]);
    ASSERT_EQ(::write(relay.program.borrow(), tooMuch.data(), tooMuch.size()),
              static_cast<ssize_t>(tooMuch.size()));
    relay.program.closeNow();
    relay.host.closeNow();
    ::close(started[1]);
    EXPECT_EQ(relay.exitStatus(), EPIPE);
}

TEST(BareTerminalRelay, BeginsWhenTheProgramHasStarted) {
    std::array<int, 2> started{};
    std::array<int, 2> left{};
    std::array<int, 2> right{};
    ASSERT_EQ(::pipe2(started.data(), O_CLOEXEC), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, left.data()), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, right.data()), 0);
    ::close(left[0]);  // the host has vanished
    const pid_t pid = ::fork();
    if (pid == 0) {
        runTerminalRelay(left[1], right[1], started[0]);
    }
    ::close(left[1]);
    ::close(right[1]);
    while (stateOf(pid) != 'S') {
    }
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), 0);
    for (const int descriptor : started) {
        ::close(descriptor);
    }
    EXPECT_EQ(::waitpid(pid, nullptr, 0), pid);
    ::close(right[0]);
}

TEST(BareTerminalRelay, WithoutAConnectionEndsWithStatus255) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        runTerminalRelay(-1, ::open("/dev/null", O_RDWR), ::open("/dev/null", O_RDONLY));
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST(BareTerminalRelay, ThatCannotLeadASessionEndsWithStatus255) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setsid();  // once more is refused
        runTerminalRelay(0, 1, 2);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 255);
}

}  // namespace
}  // namespace corvane
