// Transfers that end before all is moved, or badly.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/fakes/forbidden_call.h"
#include "tests/unit/commands/files/vsock_transfer_fixture.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

class VsockTransferEnd : public VsockTransfer {
 protected:
    /// Makes the next connection one whose host has sent `bytes` and closed.
    void sendNext(const std::string& bytes) {
        const DescriptorGuard host = connectNext();
        sendAll(host.borrow(), bytes);
    }

    /// The same for a host that has not read all that it was sent, which resets the connection.
    void resetAfter(const std::string& bytes) {
        const DescriptorGuard host = connectNext();
        sendAll(platform_.vsockSockets.nextSocket.borrow(), "x");
        sendAll(host.borrow(), bytes);
    }
};

TEST_F(VsockTransferEnd, SourceThatCannotBeReadCountsAsEnded) {
    const std::uint64_t writeOnly = open("file", "w");
    const std::uint64_t directory = open(".");
    for (const std::uint64_t source : {writeOnly, directory}) {
        const DescriptorGuard host = connectNext();
        expectCount(toHost, transferOf(source), 0);
        EXPECT_EQ(readAll(host.borrow()), "");
        EXPECT_EQ(std::ferror(streamOf(source)), 0);
    }
}

TEST_F(VsockTransferEnd, ConnectionThatIsResetCountsAsEnded) {
    const std::uint64_t file = open("file", "w");
    resetAfter("");
    char byte = 0;
    ASSERT_EQ(::read(platform_.vsockSockets.nextSocket.borrow(), &byte, 1), -1);
    ASSERT_EQ(errno, ECONNRESET) << "the system does not reset it";
    resetAfter("abc");
    expectCount(toGuest, transferOf(file), 3);
    EXPECT_EQ(fileContent(path("file")), "abc");
}

TEST_F(VsockTransferEnd, ListenerThatClosesAtOnceLeavesTheFileAsItIs) {
    makeFile("file", "0123456789");
    for (const std::string mode : {"r", "r+", "a+"}) {
        const std::uint64_t file = open("file", mode);
        sendNext("");
        expectCount(toGuest, transferOf(file), 0);
        EXPECT_EQ(fileContent(path("file")), "0123456789");
    }
}

TEST_F(VsockTransferEnd, HostThatVanishesLeavesWhatItHasSent) {
    constexpr std::size_t all = 300;
    const std::string content = mixedBytes(all);
    const std::uint64_t file = open("file", "w");
    for (std::size_t size = 0; size <= all; ++size) {
        for (const bool isReset : {false, true}) {
            ASSERT_EQ(::ftruncate(::fileno(streamOf(file)), 0), 0);
            moveTo(file, 0);
            const std::string sent = content.substr(0, size);
            isReset ? resetAfter(sent) : sendNext(sent);
            expectCount(toGuest, transferInPieces(file, "7"), size);
            EXPECT_TRUE(fileContent(path("file")) == sent) << size;
        }
    }
}

TEST_F(VsockTransferEnd, HostThatVanishesWhileItReadsIsAWriteError) {
    constexpr std::size_t all = 150;
    const std::string content = mixedBytes(1000000);  // more than the socket takes unread
    makeFile("file", content);
    const std::uint64_t file = open("file");
    const JsonValue arguments = valueOf(transferInPieces(file, "7"));
    for (std::size_t size = 0; size <= all; ++size) {
        moveTo(file, 0);
        DescriptorGuard host = connectNext();
        const int socket = platform_.vsockSockets.nextSocket.borrow();
        std::string received(size, '\0');
        std::thread vanishing([&] {
            EXPECT_EQ(::recv(host.borrow(), received.data(), size, MSG_WAITALL),
                      static_cast<ssize_t>(size));
            host.closeNow();
        });
        testing::internal::CaptureStderr();
        const std::string answer = writeJson(handleGuestFileVSockRead(arguments.object()));
        const std::string line = testing::internal::GetCapturedStderr();
        vanishing.join();
        // Whether it was writing when the host went, or wrote later.
        const bool wasWriting = answer == errorAnswer("write error: Connection reset by peer");
        EXPECT_TRUE(wasWriting || answer == errorAnswer("write error: Broken pipe")) << answer;
        EXPECT_EQ(line, std::string("handleGuestFileVSockReadWrite: write error: ") +
                            (wasWriting ? "Connection reset by peer\n" : "Broken pipe\n"));
        EXPECT_TRUE(received == content.substr(0, size)) << size;
        EXPECT_EQ(::fcntl(socket, F_GETFD), -1);
    }
}

TEST_F(VsockTransferEnd, HostThatHasGoneIsABrokenPipe) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file");
    sendNext("");
    expectFailure(toHost, transferInPieces(file, "4"), "write error: Broken pipe");
    EXPECT_EQ(offsetOf(file), 4) << "what was read is lost";
}

TEST_F(VsockTransferEnd, FileThatCannotBeWrittenIsSaid) {
    makeFile("file", "0123456789");
    const std::uint64_t readOnly = open("file");
    sendNext("abc");
    expectFailure(toGuest, transferOf(readOnly), "write error: Bad file descriptor");
    EXPECT_EQ(fileContent(path("file")), "0123456789");
    EXPECT_EQ(readFile(readOnly, 2), readAnswer("01", false)) << "the handle is as good as before";
    const std::uint64_t full = open("/dev/full", "w");
    sendNext("abc");
    expectFailure(toGuest, transferOf(full), "write error: No space left on device");
}

/// Files of this process end at `size` from now on.
void limitFiles(rlim_t size) {
    const rlimit limit{size, size};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    ::signal(SIGXFSZ, SIG_IGN);
}

TEST_F(VsockTransferEnd, ShortWriteIsAnErrorAndIsNotTriedAgain) {
    const std::string content = mixedBytes(400);
    const std::uint64_t file = open("file", "w");
    inAChild([&] {
        limitFiles(200);
        sendNext(content);
        // The write itself succeeds, so that there is no error to be named.
        expectFailure(toGuest, transferInPieces(file, "150"), "write error: Success");
        EXPECT_TRUE(fileContent(path("file")) == content.substr(0, 200));
        EXPECT_EQ(offsetOf(file), 200);
        sendNext(content);
        expectFailure(toGuest, transferOf(file), "write error: File too large");
    });
}

/// The transfer gets a socket that cannot be closed.
class VsockTransferStuck : public VsockTransferEnd {
 protected:
    VsockTransferStuck() { closesSocket_ = false; }

    /// In a child, in which the socket of the next connection does not close.
    void holdSocket() {
        forbidSystemCall(SYS_close, EIO, platform_.vsockSockets.nextSocket.borrow());
    }
};

TEST_F(VsockTransferStuck, FailureToCloseIsTheAnswerOfATransferThatHasSentAll) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file");
    inAChild([&] {
        const DescriptorGuard host = connectNext();
        holdSocket();
        expectFailure(toHost, transferOf(file),
                      "failed to close socket with error: Input/output error");
        std::string received(10, '\0');
        EXPECT_EQ(::read(host.borrow(), received.data(), received.size()), 10);
        EXPECT_EQ(received, "0123456789");
        EXPECT_EQ(offsetOf(file), 10);
    });
}

TEST_F(VsockTransferStuck, FailureToCloseIsTheAnswerOfATransferThatHasReceivedAll) {
    const std::uint64_t file = open("file", "w");
    inAChild([&] {
        sendNext("abc");
        holdSocket();
        expectFailure(toGuest, transferOf(file),
                      "failed to close socket with error: Input/output error");
        EXPECT_EQ(fileContent(path("file")), "abc");
    });
}

TEST_F(VsockTransferStuck, EarlierFailureIsTheAnswerEvenWhenClosingFails) {
    const std::uint64_t full = open("/dev/full", "w");
    inAChild([&] {
        sendNext("abc");
        holdSocket();
        expectFailure(toGuest, transferOf(full), "write error: No space left on device");
    });
}

}  // namespace
}  // namespace corvane
