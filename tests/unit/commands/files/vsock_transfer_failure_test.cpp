// Transfers that do not begin.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/fakes/forbidden_call.h"
#include "tests/unit/commands/files/vsock_transfer_fixture.h"

namespace corvane {
namespace {

class VsockTransferFailure : public VsockTransfer {
 protected:
    VsockTransferFailure() {
        makeFile("file", "0123456789");
        file_ = open("file", "r+");
    }

    void expectEveryWay(const std::string& arguments, const std::string& description) {
        expectFailure(toHost, arguments, description);
        expectFailure(toGuest, arguments, description);
    }

    [[nodiscard]] FakeVsockSockets& sockets() { return platform_.vsockSockets; }

    std::uint64_t file_ = 0;
};

TEST_F(VsockTransferFailure, WithoutArgumentsNothingIsWrittenToStandardError) {
    for (const auto direction : {toHost, toGuest}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(writeJson(handleGuestFileVSockReadWrite(nullptr, direction)),
                  errorAnswer("missing arguments"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
}

TEST_F(VsockTransferFailure, ArgumentsAreCheckedInTheirOrderBeforeASocketIsMade) {
    sockets().createError = ENODEV;
    const std::string handle = std::to_string(file_);
    for (const std::string wrong : {R"("2")", "null", "[2]", "{}"}) {
        const std::string bad = ":" + wrong;
        const std::string others =
            R"("cid")" + bad + R"(,"port")" + bad + R"(,"buffer-size")" + bad;
        expectEveryWay(R"({"handle")" + bad + "," + others + "}", "handle is not a number");
        expectEveryWay("{" + others + "}", "handle is not a number");
        expectEveryWay(R"({"handle":1,)" + others + "}", "handle is not a valid file");
        expectEveryWay(withHandle(file_, others), "cid is not a number");
        expectEveryWay(withHandle(file_, R"("port")" + bad), "cid is not a number");
        expectEveryWay(withHandle(file_, R"("cid":2,"port")" + bad + R"(,"buffer-size")" + bad),
                       "port is not a number");
        expectEveryWay(withHandle(file_, R"("cid":2,"buffer-size")" + bad), "port is not a number");
        expectEveryWay(transferOf(file_, R"("buffer-size")" + bad), "buffer-size is not a number");
    }
    EXPECT_EQ(sockets().created, 0);
}

TEST_F(VsockTransferFailure, HandlesThatNameNoStreamAreRefused) {
    for (const std::string handle : {"true", "false", "0", "1", "-1", "18446744073709551615"}) {
        expectEveryWay(R"({"handle":)" + handle + R"(,"cid":2,"port":1234})",
                       "handle is not a valid file");
    }
    const std::uint64_t closed = openFile(path("file"));
    EXPECT_EQ(closeFile(closed), success);
    expectEveryWay(transferOf(closed), "handle is not a valid file");
}

TEST_F(VsockTransferFailure, GuestWithoutVsockSaysSoAndTheHandleStaysGood) {
    for (const int error : {ENODEV, EAFNOSUPPORT}) {
        sockets().createError = error;
        expectEveryWay(transferOf(file_), "no vsock transport available");
    }
    EXPECT_TRUE(sockets().connections.empty());
    EXPECT_EQ(readFile(file_, 4), readAnswer("0123", false));
}

TEST_F(VsockTransferFailure, OtherFailuresToMakeASocketAreNamed) {
    const std::vector<std::pair<int, std::string>> errors = {
        {ENXIO, "No such device or address"},
        {EMFILE, "Too many open files"},
        {EACCES, "Permission denied"},
        {EPROTONOSUPPORT, "Protocol not supported"}};
    for (const auto& [error, text] : errors) {
        sockets().createError = error;
        expectEveryWay(transferOf(file_, R"("buffer-size":-1)"),
                       "failed to create vsock socket with error: " + text);
    }
    EXPECT_TRUE(sockets().connections.empty());
}

/// Makes what the next transfer gets for a socket the end of a pipe, and returns the other end.
DescriptorGuard pipeNext(FakeVsockSockets& sockets) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    sockets.nextSocket = DescriptorGuard(ends[1]);
    return DescriptorGuard(ends[0]);
}

TEST_F(VsockTransferFailure, UnknownReceiveBufferSizeIsSaidBeforeConnecting) {
    sockets().connectError = ECONNREFUSED;
    for (const auto direction : {toHost, toGuest}) {
        for (const std::string size : {"", R"("buffer-size":0)"}) {
            const DescriptorGuard host = pipeNext(sockets());
            expectFailure(direction, transferOf(file_, size),
                          "failed to get socket buffer size with error: "
                          "Socket operation on non-socket");
            EXPECT_EQ(readAll(host.borrow()), "");
        }
    }
    EXPECT_TRUE(sockets().connections.empty());
}

TEST_F(VsockTransferFailure, GivenSizeNeedsNoReceiveBufferSize) {
    const DescriptorGuard host = pipeNext(sockets());
    expectCount(toHost, transferInPieces(file_, "4"), 10);
    EXPECT_EQ(readAll(host.borrow()), "0123456789");
}

TEST_F(VsockTransferFailure, ReceiveBufferWithoutASizeIsRefusedBeforeConnecting) {
    inAChild([this] {
        sockets().connectError = ECONNREFUSED;
        constexpr int noError = 0;  // the call succeeds, and stores nothing
        forbidSystemCall(SYS_getsockopt, noError);
        for (const auto direction : {toHost, toGuest}) {
            const DescriptorGuard host = connectNext();
            expectFailure(direction, transferOf(file_), "buffer-size must be a positive number");
            EXPECT_EQ(readAll(host.borrow()), "");
        }
        EXPECT_TRUE(sockets().connections.empty());
    });
}

TEST_F(VsockTransferFailure, RefusedConnectionNamesItsTargetUnsigned) {
    sockets().connectError = ECONNREFUSED;
    for (const auto direction : {toHost, toGuest}) {
        for (const std::string more : {"", R"("buffer-size":1)", R"("buffer-size":-1)"}) {
            const DescriptorGuard host = connectNext();
            expectFailure(direction, transferOf(file_, more),
                          "failed to connect to 2:1234 with error: Connection refused");
            EXPECT_EQ(readAll(host.borrow()), "");
        }
    }
    sockets().connectError = ECONNRESET;
    const DescriptorGuard host = connectNext();
    expectFailure(toHost, withHandle(file_, R"("cid":-1,"port":-2)"),
                  "failed to connect to 4294967295:4294967294 with error: "
                  "Connection reset by peer");
}

TEST_F(VsockTransferFailure, BufferThatCannotBeHadIsSaidWhenTheHostHasBeenReached) {
    struct sysinfo machine {};
    ASSERT_EQ(::sysinfo(&machine), 0);
    const std::uint64_t memory = std::uint64_t{machine.totalram} * machine.mem_unit;
    const std::uint64_t swap = std::uint64_t{machine.totalswap} * machine.mem_unit;
    const std::vector<std::string> sizes = {
        "-1", "18446744073709551615", "9223372036854775808", "4611686018427387904",
        std::to_string(memory + swap + 1),
        // The system would give so much out, and end who fills it.
        std::to_string(memory / 16 * 15)};
    std::size_t connections = 0;
    for (const std::string& size : sizes) {
        for (const auto direction : {toHost, toGuest}) {
            const DescriptorGuard host = connectNext();
            ::shutdown(host.borrow(), SHUT_WR);
            expectFailure(direction, transferInPieces(file_, size), "failed to allocate buffer");
            EXPECT_EQ(readAll(host.borrow()), "");
            EXPECT_EQ(sockets().connections.size(), ++connections);
        }
    }
    EXPECT_EQ(offsetOf(file_), 0);
    EXPECT_EQ(fileContent(path("file")), "0123456789");
}

}  // namespace
}  // namespace corvane
