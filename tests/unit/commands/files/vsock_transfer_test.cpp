// What transfers move, and what the streams learn of it.

#include "commands/files/vsock_transfer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "core/json_writer.h"
#include "tests/unit/commands/files/vsock_transfer_fixture.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

static_assert(static_cast<int>(toHost) == 1);
static_assert(static_cast<int>(toGuest) == 0);

constexpr std::size_t severalMegabytes = (std::size_t{5} << 20U) + 3;

TEST_F(VsockTransfer, SendsAFileToTheHost) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, severalMegabytes}) {
        const std::string content = mixedBytes(size);
        makeFile("source", content);
        const std::uint64_t file = open("source");
        const DescriptorGuard host = connectNext();
        std::string received;
        std::thread reading([&] { received = readAll(host.borrow()); });
        expectCount(toHost, transferOf(file), size);
        reading.join();
        EXPECT_TRUE(received == content) << size;
        EXPECT_EQ(offsetOf(file), static_cast<off_t>(size));
    }
}

TEST_F(VsockTransfer, WritesToAFileWhatTheHostSends) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, severalMegabytes}) {
        const std::string content = mixedBytes(size);
        const std::uint64_t file = open("destination", "w");
        const DescriptorGuard host = connectNext();
        std::thread sending([&] {
            sendAll(host.borrow(), content);
            ::shutdown(host.borrow(), SHUT_WR);
        });
        expectCount(toGuest, transferOf(file), size);
        sending.join();
        EXPECT_TRUE(fileContent(path("destination")) == content) << size;
        EXPECT_EQ(offsetOf(file), static_cast<off_t>(size));
    }
}

ArgumentsHandler handlerOf(std::string_view name) {
    const auto* found = std::find_if(allCommands.begin(), allCommands.end(),
                                     [name](const Command& row) { return row.name == name; });
    const auto* handler =
        found == allCommands.end() ? nullptr : std::get_if<ArgumentsHandler>(&found->handler);
    return handler == nullptr ? nullptr : *handler;
}

TEST_F(VsockTransfer, ReadingCommandSendsAndWritingCommandReceives) {
    makeFile("file", "guest");
    const JsonValue arguments = valueOf(transferOf(open("file", "r+")));
    {
        const DescriptorGuard host = connectNext();
        const JsonValue answer = handlerOf("mirel-guest-file-vsock-read")(arguments.object());
        EXPECT_EQ(writeJson(answer), writeAnswer(5));
        EXPECT_EQ(readAll(host.borrow()), "guest");
    }
    DescriptorGuard host = connectNext();
    sendAll(host.borrow(), "host");
    host.closeNow();
    const JsonValue answer = handlerOf("mirel-guest-file-vsock-write")(arguments.object());
    EXPECT_EQ(writeJson(answer), writeAnswer(4));
    EXPECT_EQ(fileContent(path("file")), "guesthost");
}

TEST_F(VsockTransfer, ContextAndPortAreReadAsUnsignedThirtyTwoBits) {
    const std::vector<std::pair<std::string, std::uint32_t>> numbers = {
        {"2", 2},
        {"true", 1},
        {"false", 0},
        {"70000", 70000},
        {"4294967295", 4294967295U},
        {"-1", 4294967295U},
        {"4294967298", 2},
        {"-4294967295", 1},
        {"2.9", 2},
        {"18446744073709551621", 5}};
    makeFile("file", "");
    const std::uint64_t file = open("file");
    for (const auto& [text, number] : numbers) {
        const DescriptorGuard first = connectNext();
        expectCount(toHost, withHandle(file, R"("cid":)" + text + R"(,"port":9)"), 0);
        const DescriptorGuard second = connectNext();
        expectCount(toHost, withHandle(file, R"("cid":9,"port":)" + text), 0);
        const auto& connections = platform_.vsockSockets.connections;
        EXPECT_EQ(connections[connections.size() - 2], std::pair(number, 9U)) << text;
        EXPECT_EQ(connections.back(), std::pair(9U, number)) << text;
    }
}

/// The sizes of the messages that come until the other side has closed.
std::vector<std::size_t> messageSizes(int descriptor) {
    std::vector<std::size_t> sizes;
    std::string message(1U << 20U, '\0');
    for (ssize_t count = 0; (count = ::read(descriptor, message.data(), message.size())) > 0;) {
        sizes.push_back(static_cast<std::size_t>(count));
    }
    return sizes;
}

/// On a socket that keeps messages apart one read gives one message at most, of which it drops what
/// does not fit, and one write makes one message.
class VsockTransferBuffer : public VsockTransfer {
 protected:
    /// Transfers in both directions and expects that the buffer has `size` bytes.
    void expectSize(const std::string& more, std::size_t size) {
        const std::string content = mixedBytes(3 * size + size / 2);
        makeFile("source", content);
        const std::uint64_t source = open("source");
        const DescriptorGuard reader = connectNext(SOCK_SEQPACKET);
        shrinkReceiveBuffer();
        expectCount(toHost, transferOf(source, more), content.size());
        std::vector<std::size_t> sizes(3, size);
        if (size / 2 > 0) {
            sizes.push_back(size / 2);
        }
        EXPECT_EQ(messageSizes(reader.borrow()), sizes) << more;

        const std::uint64_t destination = open("destination", "w");
        DescriptorGuard writer = connectNext(SOCK_SEQPACKET);
        shrinkReceiveBuffer();
        for (int count = 0; count < 3; ++count) {
            sendAll(writer.borrow(), content);
        }
        writer.closeNow();
        expectCount(toGuest, transferOf(destination, more), 3 * size);
        const std::string piece = content.substr(0, size);
        EXPECT_TRUE(fileContent(path("destination")) == piece + piece + piece) << more;
    }

    /// To a size that is not the default, and which the system doubles. See socket(7), SO_RCVBUF.
    void shrinkReceiveBuffer() {
        int size = halfSize;
        EXPECT_EQ(::setsockopt(platform_.vsockSockets.nextSocket.borrow(), SOL_SOCKET, SO_RCVBUF,
                               &size, sizeof size),
                  0);
    }

    static constexpr int halfSize = 3001;
};

TEST_F(VsockTransferBuffer, IsAsLargeAsTheReceiveBufferWithoutASize) {
    expectSize("", std::size_t{2} * halfSize);
}

TEST_F(VsockTransferBuffer, IsAsLargeAsTheReceiveBufferWithSizeZero) {
    for (const std::string zero : {"0", "false", "0.9", "-0", "18446744073709551616"}) {
        expectSize(R"("buffer-size":)" + zero, std::size_t{2} * halfSize);
    }
}

TEST_F(VsockTransferBuffer, IsAsLargeAsTheGivenSize) {
    const std::vector<std::pair<std::string, std::size_t>> sizes = {
        {"1", 1}, {"true", 1}, {"2.9", 2}, {"7", 7}, {"8192", 8192}, {"18446744073709551619", 3}};
    for (const auto& [text, size] : sizes) {
        expectSize(R"("buffer-size":)" + text, size);
    }
}

TEST_F(VsockTransferBuffer, MayBeLargerThanAllThatThereIs) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file");
    const DescriptorGuard host = connectNext(SOCK_SEQPACKET);
    expectCount(toHost, transferInPieces(file, "100000000"), 10);
    EXPECT_EQ(messageSizes(host.borrow()), std::vector<std::size_t>{10});
}

/// Without a look at standard error: capturing that flushes every stream.
class VsockTransferStream : public VsockTransfer {
 protected:
    /// Transfers what the host sends in one small piece.
    void receive(std::uint64_t file, const std::string& bytes, bool eof = false) {
        DescriptorGuard host = connectNext();
        sendAll(host.borrow(), bytes);
        host.closeNow();
        EXPECT_EQ(answerToTransfer(toGuest, file), writeAnswer(bytes.size(), eof));
    }

    /// Transfers to the host and expects that it gets `bytes`.
    void expectSent(std::uint64_t file, const std::string& bytes, bool eof = false) {
        const DescriptorGuard host = connectNext();
        EXPECT_EQ(answerToTransfer(toHost, file), writeAnswer(bytes.size(), eof));
        EXPECT_EQ(readAll(host.borrow()), bytes);
    }

 private:
    static std::string answerToTransfer(TransferDirection direction, std::uint64_t file) {
        const JsonValue arguments = valueOf(transferOf(file));
        return writeJson(handleGuestFileVSockReadWrite(arguments.object(), direction));
    }
};

TEST_F(VsockTransferStream, EndOfFileIsNotToldByTheTransferItself) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file", "r+");
    expectSent(file, "0123456789");
    expectSent(file, "");
    receive(file, "");
    EXPECT_EQ(std::feof(streamOf(file)), 0);
    EXPECT_EQ(readFile(file, 1), readAnswer("", true));
}

TEST_F(VsockTransferStream, EndOfFileSeenByAnEarlierReadIsReported) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file", "r+");
    EXPECT_EQ(readFile(file, 4096), readAnswer("0123456789", true));
    expectSent(file, "", true);
    moveTo(file, 8);
    expectSent(file, "89", true);
    receive(file, "ab", true);
    EXPECT_NE(std::feof(streamOf(file)), 0);
    EXPECT_EQ(seekFile(file, 0, "set"), seekAnswer(0));
    expectSent(file, "0123456789ab", false);
}

TEST_F(VsockTransferStream, TransferBeginsWhereTheDescriptorStands) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file", "r+");
    moveTo(file, 4);
    expectSent(file, "456789");
    moveTo(file, 2);
    receive(file, "ab");
    EXPECT_EQ(offsetOf(file), 4);
    receive(file, "cd");
    EXPECT_EQ(fileContent(path("file")), "01abcd6789");
    expectSent(file, "6789");
}

TEST_F(VsockTransferStream, WhatTheStreamHasReadAheadIsNotSent) {
    const std::string content = mixedBytes(20000);
    makeFile("file", content);
    const std::uint64_t file = open("file");
    EXPECT_EQ(std::fgetc(streamOf(file)), static_cast<unsigned char>(content[0]));
    const auto readAhead = static_cast<std::size_t>(offsetOf(file));
    ASSERT_GT(readAhead, 1U);
    ASSERT_LT(readAhead, content.size());
    expectSent(file, content.substr(readAhead));
    EXPECT_EQ(readFile(file, readAhead - 1), readAnswer(content.substr(1, readAhead - 1), false))
        << "the stream goes on where it was";
}

TEST_F(VsockTransferStream, WhatTheStreamHasNotFlushedIsNotSentAndStays) {
    makeFile("file", "0123456789");
    const std::uint64_t file = open("file", "r+");
    EXPECT_EQ(writeFile(file, "ab"), writeAnswer(2));
    expectSent(file, "0123456789");
    EXPECT_EQ(fileContent(path("file")), "0123456789");
    EXPECT_EQ(flushFile(file), success);
    EXPECT_NE(fileContent(path("file")).find("ab"), std::string::npos);
}

TEST_F(VsockTransferStream, WhatTheStreamHasNotFlushedComesAfterWhatTheHostSends) {
    const std::uint64_t file = open("file", "w");
    EXPECT_EQ(writeFile(file, "later"), writeAnswer(5));
    receive(file, "first");
    EXPECT_EQ(fileContent(path("file")), "first");
    EXPECT_EQ(flushFile(file), success);
    EXPECT_EQ(fileContent(path("file")), "firstlater");
}

}  // namespace
}  // namespace corvane
