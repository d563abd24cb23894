// Programs whose streams are a connection to the host, which here is the other end of a socketpair.

#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

class LaunchVsock : public ProgramTest {
 protected:
    LaunchVsock() { platform_.vsockSockets.createError = 0; }

    static ExecRequest connected(const std::string& command) {
        ExecRequest request = shellCommand(command);
        request.vsockTarget = VsockTarget{2, 5000};
        return request;
    }

    [[nodiscard]] int hostEnd() const { return platform_.vsockSockets.hostEnds.back().borrow(); }

    /// All that comes until the other side ends.
    static std::string readAll(int descriptor) {
        std::string text;
        std::array<char, 65536> piece;
        for (ssize_t count = 0; (count = ::read(descriptor, piece.data(), piece.size())) > 0;) {
            text.append(piece.data(), static_cast<std::size_t>(count));
        }
        return text;
    }
};

TEST_F(LaunchVsock, AllThreeStreamsAreTheConnection) {
    const pid_t pid = pidOf(launch(connected("read line; echo got $line; echo err >&2")));
    ASSERT_EQ(::write(hostEnd(), "word\n", 5), 5);
    EXPECT_EQ(readAll(hostEnd()), "got word\nerr\n");
    EXPECT_EQ(endOf(pid).status, 0);
    EXPECT_EQ(platform_.vsockSockets.connections,
              (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{2, 5000}}));
}

TEST_F(LaunchVsock, TheAgentKeepsNothingOfTheConnection) {
    const std::size_t before = countDescriptors();
    const pid_t pid = pidOf(launch(connected("exec <&- >&- 2>&-; exec sleep 1000")));
    EXPECT_EQ(readAll(hostEnd()), "") << "the host sees the end, though the program runs on";
    platform_.vsockSockets.hostEnds.clear();
    EXPECT_EQ(countDescriptors(), before);
    ::kill(pid, SIGKILL);
    endOf(pid);
}

TEST_F(LaunchVsock, ProgramSeesTheHostsEnd) {
    const pid_t pid = pidOf(launch(connected("cat >/dev/null; exit 6")));
    platform_.vsockSockets.hostEnds.clear();
    EXPECT_EQ(endOf(pid).status, 6 << 8);
}

TEST_F(LaunchVsock, WithoutVsockItSaysSo) {
    for (const int error : {ENXIO, EAFNOSUPPORT}) {
        platform_.vsockSockets.createError = error;
        EXPECT_EQ(errorOf(launch(connected("true"))), "vsock transport not available");
    }
}

TEST_F(LaunchVsock, OtherFailuresToMakeASocketAreNamed) {
    platform_.vsockSockets.createError = ENODEV;
    EXPECT_EQ(errorOf(launch(connected("true"))), "failed to create vsock socket: No such device");
}

TEST_F(LaunchVsock, FailedConnectionNamesItsTargetUnsigned) {
    const std::size_t before = countDescriptors();
    platform_.vsockSockets.connectError = ECONNRESET;
    ExecRequest request = connected("true");
    request.vsockTarget = VsockTarget{-1, -2};
    EXPECT_EQ(errorOf(launch(request)),
              "failed to to connect to 'vsock://4294967295:4294967294': Connection reset by peer");
    EXPECT_EQ(platform_.vsockSockets.connections.back(),
              (std::pair<std::uint32_t, std::uint32_t>{4294967295U, 4294967294U}));
    platform_.vsockSockets.hostEnds.clear();
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(LaunchVsock, WithoutBothSizeAndSettingsThereIsNoTerminal) {
    for (const bool withSettings : {true, false}) {
        ExecRequest request = connected("test -t 0 || echo no terminal");
        if (withSettings) {
            request.terminalSettings = TerminalSettings{};
        } else {
            request.windowSize = winsize{24, 80, 0, 0};
        }
        const pid_t pid = pidOf(launch(request));
        EXPECT_EQ(readAll(hostEnd()), "no terminal\n");
        EXPECT_EQ(endOf(pid).status, 0);
    }
    EXPECT_TRUE(platform_.terminals.applied.empty());
}

}  // namespace
}  // namespace corvane
