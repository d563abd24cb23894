// The read loop runs on the main thread here, as in the agent: the allocator gives only what that
// one has used back to the system.

#include "bench/transfer_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>

#include "bench/agent_on_socket.h"
#include "bench/peak_memory.h"
#include "commands/files/file_handle_table.h"
#include "core/base64.h"
#include "core/channel.h"
#include "core/read_loop.h"
#include "tests/fakes/own_memory.h"

namespace corvane {

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20U;
constexpr int rounds = 1000;

/// The lines of one round: a write and a read of the same bytes, each after a seek to the start.
std::string roundOf(const std::string& handle) {
    const auto line = [&](const char* command, const std::string& more) {
        return std::string(R"({"execute":")") + command + R"(","arguments":{"handle":)" + handle +
               "," + more + "}}\n";
    };
    const std::string toStart = line("guest-file-seek", R"("offset":0,"whence":0)");
    return toStart +
           line("guest-file-write",
                R"("buf-b64":")" + encodeBase64(std::string(mebibyte, 'x')) + "\"") +
           toStart + line("guest-file-read", "\"count\":" + std::to_string(mebibyte));
}

void runRound(int host, const std::string& lines) {
    for (std::size_t start = 0; start < lines.size();) {
        const std::size_t end = lines.find('\n', start) + 1;
        sendAll(host, std::string_view(lines).substr(start, end - start));
        receiveLine(host);
        start = end;
    }
}

/// The least memory that there is within two seconds of idling: nothing tells when it has gone
/// back.
std::size_t settledMemory() {
    std::size_t least = ownMemory("VmRSS");
    for (int waited = 0; waited < 20; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        least = std::min(least, ownMemory("VmRSS"));
    }
    return least;
}

std::size_t growth() {
    BenchPlatform bench;
    openChannel();
    std::FILE* const stream = ::fdopen(::memfd_create("file", MFD_CLOEXEC), "w+");
    fileHandleTable.emplace(stream, stream);
    const int host = bench.channelDevice.hostEnd.borrow();
    const std::string lines = roundOf(std::to_string(fileHandle(stream)));
    std::size_t grown = 0;
    std::atomic<bool> ended = false;
    std::thread hostThread([&] {
        runRound(host, lines);  // what is made once is made now
        const std::size_t before = settledMemory();
        for (int round = 0; round < rounds; ++round) {
            runRound(host, lines);
        }
        grown = std::max(settledMemory(), before) - before;
        ended = true;
        sendAll(host, "\n");
    });
    ReadLoop loop;
    while (!ended) {
        loop.pass();
    }
    hostThread.join();
    return grown;
}

}  // namespace

double growthAfterTransfers() {
    return static_cast<double>(measuredInChild(growth)) / static_cast<double>(mebibyte);
}

}  // namespace corvane
