// A file of 8 MiB, read and written in requests of 1 MiB that a host sends without waiting for
// their answers, through the read loop, beside bare writes and reads of the same base64 text over
// the same kind of socket.

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "core/base64.h"
#include "core/descriptor_guard.h"

namespace corvane {
namespace {

constexpr std::size_t transferSize = std::size_t{1} << 20U;
constexpr std::size_t transfersPerFile = 8;
constexpr std::size_t fileSize = transfersPerFile * transferSize;

std::string contentOf(std::size_t transfer) {
    return std::string(transferSize, static_cast<char>(transfer));
}

/// A line for each transfer, with its base64 text between `before` and `after`.
std::string textLines(const std::string& before, const std::string& after) {
    std::string lines;
    for (std::size_t transfer = 0; transfer < transfersPerFile; ++transfer) {
        lines.append(before).append(encodeBase64(contentOf(transfer))).append(after).append("\n");
    }
    return lines;
}

/// The same line for each transfer.
std::string shortLines(const std::string& line) {
    std::string lines;
    for (std::size_t transfer = 0; transfer < transfersPerFile; ++transfer) {
        lines += line;
    }
    return lines;
}

/// By memchr(3), which does not slow down what is measured.
std::size_t countLineFeeds(std::string_view bytes) {
    std::size_t count = 0;
    for (auto at = bytes.find('\n'); at != std::string_view::npos; at = bytes.find('\n', at + 1)) {
        ++count;
    }
    return count;
}

/// Sends `requests` and takes in so many lines of answers. Returns how many bytes they had.
std::size_t exchange(int descriptor, std::string_view requests, std::size_t answers) {
    thread_local std::array<char, 65536> buffer;
    sendAll(descriptor, requests);
    std::size_t size = 0;
    while (answers > 0) {
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count <= 0) {
            throw std::runtime_error("cannot read from the agent");
        }
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
        answers -= countLineFeeds(bytes);
        size += bytes.size();
    }
    return size;
}

/// A file in memory, like one in the page cache.
class MemoryFile {
 public:
    MemoryFile() {
        for (std::size_t transfer = 0; transfer < transfersPerFile; ++transfer) {
            sendAll(file_.borrow(), contentOf(transfer));
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
    ~AgentWithFile() { static_cast<void>(request(command("guest-file-close", ""))); }
    AgentWithFile(const AgentWithFile&) = delete;
    AgentWithFile& operator=(const AgentWithFile&) = delete;

    /// A command's line up to further arguments, and whole with them.
    [[nodiscard]] std::string commandStart(const std::string& name) const {
        return R"({"execute":")" + name + R"(","arguments":{"handle":)" + handle_;
    }
    [[nodiscard]] std::string command(const std::string& name, const std::string& more) const {
        return commandStart(name) + more + "}}\n";
    }

    /// Has `requests`, one for each transfer, answered from the file's start on. Returns the size
    /// of the answers.
    [[nodiscard]] std::size_t transfer(const std::string& requests) const {
        return exchange(agent_.hostEnd(), requests, transfersPerFile + 1);
    }
    /// The request with which each run begins.
    [[nodiscard]] std::string rewind() const {
        return command("guest-file-seek", R"(,"offset":0,"whence":0)");
    }

 private:
    [[nodiscard]] std::string_view request(const std::string& line) const {
        sendAll(agent_.hostEnd(), line);
        return receiveLine(agent_.hostEnd());
    }

    MemoryFile file_;
    AgentOnSocket agent_;
    std::string handle_;
};

void runFile(benchmark::State& state, const AgentWithFile& agent, const std::string& requests,
             std::size_t leastAnswer) {
    const std::string all = agent.rewind() + requests;
    for (auto _ : state) {
        if (agent.transfer(all) < leastAnswer * transfersPerFile) {
            state.SkipWithError("the file was not transferred");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(fileSize));
}

void readFile(benchmark::State& state) {
    const AgentWithFile agent("r");
    const std::string request =
        agent.command("guest-file-read", ",\"count\":" + std::to_string(transferSize));
    runFile(state, agent, shortLines(request), base64Length(transferSize));
}

void writeFile(benchmark::State& state) {
    constexpr std::string_view answer = R"({"return":{"count":1048576,"eof":false}})";
    const AgentWithFile agent("r+");
    runFile(state, agent,
            textLines(agent.commandStart("guest-file-write") + R"(,"buf-b64":")", "\"}}"),
            answer.size());
}

/// Answers each line with the next of `answers`, without the agent.
class BarePeer {
 public:
    explicit BarePeer(std::string answers) : answers_(std::move(answers)) {
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

    void transfer(std::string_view requests) const {
        exchange(hostEnd_.borrow(), requests, transfersPerFile);
    }

 private:
    void serve() const {
        std::array<char, 8192> buffer;  // as the agent reads
        const std::size_t answerSize = answers_.size() / transfersPerFile;
        std::size_t answered = 0;
        ssize_t count = 0;
        while ((count = ::read(ownEnd_.borrow(), buffer.data(), buffer.size())) > 0) {
            const std::string_view bytes(buffer.data(), static_cast<std::size_t>(count));
            for (auto lines = countLineFeeds(bytes); lines > 0; --lines) {
                const std::size_t start = answered++ % transfersPerFile * answerSize;
                sendAll(ownEnd_.borrow(), {answers_.data() + start, answerSize});
            }
        }
    }

    std::string answers_;
    DescriptorGuard hostEnd_;
    DescriptorGuard ownEnd_;
    std::thread thread_;
};

void runBare(benchmark::State& state, const std::string& requests, const std::string& answers) {
    const BarePeer peer(answers);
    for (auto _ : state) {
        peer.transfer(requests);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(fileSize));
}

std::string someLines() {
    return shortLines(std::string(100, 'x') + "\n");
}

void readBare(benchmark::State& state) {
    runBare(state, someLines(), textLines("", ""));
}

void writeBare(benchmark::State& state) {
    runBare(state, textLines("", ""), someLines());
}

BENCHMARK(readFile)->Name("file/read")->UseRealTime();
BENCHMARK(writeFile)->Name("file/write")->UseRealTime();
BENCHMARK(readBare)->Name("file/bare_read")->UseRealTime();
BENCHMARK(writeBare)->Name("file/bare_write")->UseRealTime();

}  // namespace
}  // namespace corvane
