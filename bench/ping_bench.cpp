// Round trips of "guest-ping" through the read loop, beside a loop that does the same system calls
// and nothing else.

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"

namespace corvane {
namespace {

constexpr std::string_view ping = "{\"execute\":\"guest-ping\"}\n";

/// Gives back what it reads until its peer hangs up.
void echo(int descriptor) {
    std::array<char, 8192> buffer;
    for (;;) {
        pollfd waited{descriptor, POLLIN, 0};
        ::poll(&waited, 1, -1);
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count <= 0 || ::write(descriptor, buffer.data(), static_cast<std::size_t>(count)) < 0) {
            return;
        }
    }
}

class EchoOnSocket {
 public:
    EchoOnSocket() {
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::runtime_error("no socketpair");
        }
        hostEnd_ = DescriptorGuard(ends[0]);
        loopEnd_ = DescriptorGuard(ends[1]);
        loop_ = std::thread([this] { echo(loopEnd_.borrow()); });
    }
    ~EchoOnSocket() {
        hostEnd_.closeNow();
        loop_.join();
    }
    EchoOnSocket(const EchoOnSocket&) = delete;
    EchoOnSocket& operator=(const EchoOnSocket&) = delete;

    [[nodiscard]] int hostEnd() const noexcept { return hostEnd_.borrow(); }

 private:
    DescriptorGuard hostEnd_;
    DescriptorGuard loopEnd_;
    std::thread loop_;
};

/// Keeps this thread, and those that it starts, on one processor for a scope.
class OneProcessor {
 public:
    OneProcessor() {
        ::sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
        ::sched_setaffinity(0, sizeof one, &one);
    }
    ~OneProcessor() { ::sched_setaffinity(0, sizeof before_, &before_); }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;

 private:
    cpu_set_t before_{};
};

template <typename Peer>
void roundTrips(benchmark::State& state) {
    std::optional<OneProcessor> scope;
    if (state.range(0) == 1) {
        scope.emplace();
    }
    const Peer peer;
    for (auto _ : state) {
        sendAll(peer.hostEnd(), ping);
        receiveLine(peer.hostEnd());
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(roundTrips<AgentOnSocket>)->Name("ping/agent")->Arg(0)->UseRealTime();
BENCHMARK(roundTrips<EchoOnSocket>)->Name("ping/echo")->Arg(0)->UseRealTime();
BENCHMARK(roundTrips<AgentOnSocket>)->Name("ping1/agent")->Arg(1)->UseRealTime();
BENCHMARK(roundTrips<EchoOnSocket>)->Name("ping1/echo")->Arg(1)->UseRealTime();

}  // namespace
}  // namespace corvane
