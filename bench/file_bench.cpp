// "guest-file-read" and "guest-file-write" of 1 MiB each through the read loop, beside bare reads
// and writes of as many base64 bytes over the same kind of socket, with the same wait for an
// answer.

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "core/base64.h"
#include "core/descriptor_guard.h"

namespace corvane {
namespace {

constexpr std::size_t transferSize = std::size_t{1} << 20U;
constexpr int transfersPerFile = 8;

/// A file in memory, like one in the page cache.
class MemoryFile {
 public:
    MemoryFile() {
        const std::string content(transferSize, 'x');
        for (int count = 0; count < transfersPerFile; ++count) {
            sendAll(file_.borrow(), content);
        }
    }

    [[nodiscard]] std::string path() const {
        return "/proc/self/fd/" + std::to_string(file_.borrow());
    }

 private:
    DescriptorGuard file_{::memfd_create("file", MFD_CLOEXEC)};
};

/// The agent with a file that the host has open.
class AgentWithFile {
 public:
    explicit AgentWithFile(const char* mode) {
        const std::string answer(request(R"({"execute":"guest-file-open","arguments":{"path":")" +
                                         file_.path() + R"(","mode":")" + mode + "\"}}\n"));
        const auto start = answer.find_first_of("0123456789");
        handle_ = answer.substr(start, answer.find('}') - start);
    }
    ~AgentWithFile() { request(command("guest-file-close", "")); }
    AgentWithFile(const AgentWithFile&) = delete;
    AgentWithFile& operator=(const AgentWithFile&) = delete;

    [[nodiscard]] std::string command(const std::string& name, const std::string& more) const {
        return R"({"execute":")" + name + R"(","arguments":{"handle":)" + handle_ + more + "}}\n";
    }

    /// Sends a request, takes in its answer, and goes back to the file's start every now and then.
    std::string_view transfer(const std::string& line) {
        if (++transfers_ % transfersPerFile == 0) {
            request(command("guest-file-seek", R"(,"offset":0,"whence":0)"));
        }
        return request(line);
    }

 private:
    std::string_view request(const std::string& line) const {
        sendAll(agent_.hostEnd(), line);
        return receiveLine(agent_.hostEnd());
    }

    MemoryFile file_;
    AgentOnSocket agent_;
    std::string handle_;
    int transfers_ = 0;
};

std::string readRequest(const AgentWithFile& agent) {
    return agent.command("guest-file-read", ",\"count\":" + std::to_string(transferSize));
}

std::string writeRequest(const AgentWithFile& agent) {
    return agent.command("guest-file-write",
                         R"(,"buf-b64":")" + encodeBase64(std::string(transferSize, 'x')) + "\"");
}

void readFile(benchmark::State& state) {
    AgentWithFile agent("r");
    const std::string request = readRequest(agent);
    for (auto _ : state) {
        if (!agent.transfer(request).ends_with("\"}}\n")) {
            state.SkipWithError("the file was not read");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(transferSize));
}

void writeFile(benchmark::State& state) {
    AgentWithFile agent("r+");
    const std::string request = writeRequest(agent);
    for (auto _ : state) {
        if (agent.transfer(request).find("return") == std::string_view::npos) {
            state.SkipWithError("the file was not written");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(transferSize));
}

/// Answers each line with another one.
class BarePeer {
 public:
    explicit BarePeer(std::string answer) : answer_(std::move(answer)) {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no socketpair");
        }
        hostEnd_ = DescriptorGuard(ends[0]);
        ownEnd_ = DescriptorGuard(ends[1]);
        thread_ = std::thread([this] { serve(); });
    }
    ~BarePeer() {
        hostEnd_.closeNow();
        thread_.join();
    }
    BarePeer(const BarePeer&) = delete;
    BarePeer& operator=(const BarePeer&) = delete;

    std::string_view request(std::string_view line) const {
        sendAll(hostEnd_.borrow(), line);
        return receiveLine(hostEnd_.borrow());
    }

 private:
    void serve() const {
        std::array<char, 8192> buffer;  // as the agent reads
        ssize_t count = 0;
        while ((count = ::read(ownEnd_.borrow(), buffer.data(), buffer.size())) > 0) {
            if (buffer[static_cast<std::size_t>(count) - 1] == '\n') {
                sendAll(ownEnd_.borrow(), answer_);
            }
        }
    }

    std::string answer_;
    DescriptorGuard hostEnd_;
    DescriptorGuard ownEnd_;
    std::thread thread_;
};

void exchangeBare(benchmark::State& state, std::size_t requestSize, std::size_t answerSize) {
    const BarePeer peer(std::string(answerSize, 'x') + "\n");
    const std::string request = std::string(requestSize, 'x') + "\n";
    for (auto _ : state) {
        benchmark::DoNotOptimize(peer.request(request).data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(transferSize));
}

constexpr std::size_t shortLine = 100;

BENCHMARK(readFile)->Name("file/read")->UseRealTime();
BENCHMARK(writeFile)->Name("file/write")->UseRealTime();
BENCHMARK_CAPTURE(exchangeBare, read, shortLine, base64Length(transferSize))
    ->Name("file/bare_read")
    ->UseRealTime();
BENCHMARK_CAPTURE(exchangeBare, write, base64Length(transferSize), shortLine)
    ->Name("file/bare_write")
    ->UseRealTime();

}  // namespace
}  // namespace corvane
