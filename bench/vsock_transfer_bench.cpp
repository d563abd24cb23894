// A file transfer to a listener and from it, over a socketpair, beside a loop that does nothing but
// read and write, with the same buffer on the same kind of socket.

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "commands/files/file_handle_table.h"
#include "commands/files/vsock_transfer.h"
#include "core/descriptor_guard.h"

namespace corvane {
namespace {

constexpr std::size_t transferSize = std::size_t{16} << 20U;
constexpr std::size_t bufferSize = std::size_t{208} * 1024;  // about what a socket holds

using Direction = TransferDirection;

/// The listener's end: takes in or gives out, and ends with its connection.
void playHost(DescriptorGuard end, Direction direction) {
    std::vector<char> buffer(bufferSize, 'x');
    if (direction == Direction::guestToHost) {
        while (::read(end.borrow(), buffer.data(), buffer.size()) > 0) {
        }
        return;
    }
    for (std::size_t left = transferSize; left > 0;) {
        const ssize_t sent = ::write(end.borrow(), buffer.data(), std::min(left, buffer.size()));
        if (sent <= 0) {
            return;
        }
        left -= static_cast<std::size_t>(sent);
    }
}

/// A connection to a host on a thread of its own.
class Connection {
 public:
    explicit Connection(Direction direction) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no socketpair");
        }
        ownEnd = DescriptorGuard(ends[0]);
        host_ = std::thread([end = DescriptorGuard(ends[1]), direction]() mutable {
            playHost(std::move(end), direction);
        });
    }
    ~Connection() {
        ownEnd.closeNow();
        host_.join();
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    DescriptorGuard ownEnd;

 private:
    std::thread host_;
};

/// A file in memory to read, and a place to write to that takes no time.
std::FILE* openFile(Direction direction) {
    if (direction == Direction::hostToGuest) {
        return std::fopen("/dev/null", "we");
    }
    const int file = ::memfd_create("file", MFD_CLOEXEC);
    sendAll(file, std::string(transferSize, 'x'));
    return ::fdopen(file, "r+");
}

void transfer(benchmark::State& state, Direction direction) {
    BenchPlatform bench;
    bench.vsockSockets.createError = 0;
    std::FILE* const stream = openFile(direction);
    fileHandleTable.emplace(stream, stream);
    JsonObject arguments;
    arguments.add("handle", JsonNumber::fromUnsigned(fileHandle(stream)));
    arguments.add("cid", JsonNumber::fromUnsigned(2));
    arguments.add("port", JsonNumber::fromUnsigned(1));
    arguments.add("buffer-size", JsonNumber::fromUnsigned(bufferSize));
    for (auto _ : state) {
        ::lseek(::fileno(stream), 0, SEEK_SET);
        Connection connection(direction);
        bench.vsockSockets.nextSocket = std::move(connection.ownEnd);
        const JsonValue response = handleGuestFileVSockReadWrite(&arguments, direction);
        const JsonValue* result = response.object()->find("return");
        if (result == nullptr ||
            result->object()->find("count")->number()->asUnsigned64() != transferSize) {
            state.SkipWithError("the file was not transferred");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(transferSize));
    fileHandleTable.erase(stream);
    std::fclose(stream);
}

/// What any transfer has to do.
void copyBare(benchmark::State& state, Direction direction) {
    std::FILE* const stream = openFile(direction);
    std::vector<char> buffer(bufferSize);
    for (auto _ : state) {
        ::lseek(::fileno(stream), 0, SEEK_SET);
        Connection connection(direction);
        const int socket = connection.ownEnd.borrow();
        const bool toHost = direction == Direction::guestToHost;
        const int source = toHost ? ::fileno(stream) : socket;
        const int destination = toHost ? socket : ::fileno(stream);
        ssize_t count = 0;
        while ((count = ::read(source, buffer.data(), buffer.size())) > 0) {
            sendAll(destination, {buffer.data(), static_cast<std::size_t>(count)});
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(transferSize));
    std::fclose(stream);
}

BENCHMARK_CAPTURE(transfer, read, Direction::guestToHost)->Name("vsock/read")->UseRealTime();
BENCHMARK_CAPTURE(transfer, write, Direction::hostToGuest)->Name("vsock/write")->UseRealTime();
BENCHMARK_CAPTURE(copyBare, read, Direction::guestToHost)->Name("vsock/bare_read")->UseRealTime();
BENCHMARK_CAPTURE(copyBare, write, Direction::hostToGuest)->Name("vsock/bare_write")->UseRealTime();

}  // namespace
}  // namespace corvane
