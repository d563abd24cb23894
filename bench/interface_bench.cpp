// The list of interfaces, from the request to the text of the answer, beside the C library's walk
// over all entries, which every answer begins with.

#include <fcntl.h>
#include <sched.h>

#include <cstddef>
#include <ifaddrs.h>
#include <map>
#include <string>
#include <system_error>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "commands/system/interface_report.h"
#include "core/json_writer.h"
#include "tests/unit/platform/linux/private_network.h"

namespace corvane {
namespace {

DescriptorGuard openNetwork() {
    return DescriptorGuard(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
}

/// Adds interfaces to the loopback interface of a new network until there are `count`, each with
/// an IPv4 and an IPv6 address.
void furnish(std::int64_t count) {
    switchOn("lo");
    for (unsigned number = 1; number < count; ++number) {
        const std::string name = "eth" + std::to_string(number);
        const std::string place =
            std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
        addInterface(name, number);
        switchOn(name);
        addAddress(name, "10.1." + place, 24);
        addAddress(name, "fd00::10.1." + place, 64);
    }
}

/// For its scope this thread is in a network with so many interfaces. Networks are made once.
class NetworkOf {
 public:
    explicit NetworkOf(std::int64_t count) {
        DescriptorGuard& network = networks[count];
        if (!network.empty()) {
            enter(network);
        } else if (::unshare(CLONE_NEWNET) == 0) {
            furnish(count);
            network = openNetwork();
        } else {
            throw std::system_error(errno, std::generic_category(), "no network of our own");
        }
    }
    ~NetworkOf() { enter(before_); }
    NetworkOf(const NetworkOf&) = delete;
    NetworkOf& operator=(const NetworkOf&) = delete;

 private:
    static void enter(const DescriptorGuard& network) { ::setns(network.borrow(), CLONE_NEWNET); }

    static inline std::map<std::int64_t, DescriptorGuard> networks;
    const DescriptorGuard before_ = openNetwork();
};

/// Runs `once`, which returns how much it has found, among the interfaces of a network.
template <typename Once>
void runAmong(benchmark::State& state, Once once) {
    try {
        const NetworkOf network(state.range(0));
        if (once() < static_cast<std::size_t>(state.range(0)) * 3) {
            state.SkipWithError("not all is found");
        }
        for (auto _ : state) {
            benchmark::DoNotOptimize(once());
        }
    } catch (const std::exception& exception) {
        state.SkipWithError(exception.what());
    }
}

void answer(benchmark::State& state) {
    const BenchPlatform platform;
    runAmong(state, [] {
        const std::string line = writeJson(handleGuestNetworkGetInterfaces(nullptr), {}, "\n");
        return line.size();
    });
}

void bareWalk(benchmark::State& state) {
    runAmong(state, [] {
        std::size_t entries = 0;
        ifaddrs* first = nullptr;
        if (::getifaddrs(&first) != 0) {
            return entries;
        }
        for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
            benchmark::DoNotOptimize(entry->ifa_addr->sa_family);
            ++entries;
        }
        ::freeifaddrs(first);
        return entries;
    });
}

BENCHMARK(answer)->Name("interfaces/answer_2")->Arg(2);
BENCHMARK(bareWalk)->Name("interfaces/walk_2")->Arg(2);
BENCHMARK(answer)->Name("interfaces/answer_1000")->Arg(1000);
BENCHMARK(bareWalk)->Name("interfaces/walk_1000")->Arg(1000);

}  // namespace
}  // namespace corvane
