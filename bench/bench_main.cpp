// Runs the benchmarks several times over, in mixed order, and prints the ratios that matter.

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/exec_bench.h"
#include "bench/large_request_bench.h"
#include "bench/ratio_report.h"
#include "bench/transfer_memory.h"
#include "core/heap.h"

namespace {

using corvane::Ratio;

/// What counts as missed by a lot: the machine that runs this is seldom quiet.
constexpr double tolerance = 1.5;

/// A string that stays needs memory that it did not have before, so that its limit is a copy to
/// fresh memory; a copy within memory that is in use, and in the cache, is shown beside it.
const std::vector<Ratio>& targets() {
    static const std::vector<Ratio> all = {
        {"pings per second, of those of a bare echo", "ping/echo", "ping/agent",
         Ratio::Target::atLeast, 0.8},
        {"the same on one processor", "ping1/echo", "ping1/agent", Ratio::Target::atLeast, 0.8},
        {"16 MiB argument, in copies of it", "large/argument", "large/memcpy",
         Ratio::Target::atMost, 0},
        {"16 MiB command name, in copies of it", "large/unknown_command", "large/memcpy",
         Ratio::Target::atMost, 0},
        {"16 MiB argument, in copies to fresh memory", "large/argument", "large/memcpy_fresh",
         Ratio::Target::atMost, 4},
        {"16 MiB command name, in copies to fresh memory", "large/unknown_command",
         "large/memcpy_fresh", Ratio::Target::atMost, 4},
        {"line of 100 MB, in lines of 10 MB", "line/read_100MB", "line/read_10MB",
         Ratio::Target::atMost, 12},
        {"the same over a socket", "line/socket_100MB", "line/socket_10MB", Ratio::Target::atMost,
         12},
        {"start to reported exit, in bare forks", "exec/agent", "exec/bare_fork",
         Ratio::Target::atMost, 1.3},
        {"the same with 512 MB, in those with 10 MB", "exec/agent_512MB", "exec/agent_10MB",
         Ratio::Target::atMost, 1.5},
        {"bare fork with 512 MB, in those with 10 MB", "exec/bare_fork_512MB",
         "exec/bare_fork_10MB", Ratio::Target::atMost, 0},
        {"file bytes read per second, of those of a bare socket", "file/bare_read", "file/read",
         Ratio::Target::atLeast, 0.6},
        {"file bytes written per second, of a bare socket's", "file/bare_write", "file/write",
         Ratio::Target::atLeast, 0.5},
        {"file transfer to a listener, of a bare loop's speed", "vsock/bare_read", "vsock/read",
         Ratio::Target::atLeast, 0.95},
        {"file transfer from a listener, of a bare loop's", "vsock/bare_write", "vsock/write",
         Ratio::Target::atLeast, 0.95},
        {"list of 2 interfaces, in walks over their addresses", "interfaces/answer_2",
         "interfaces/walk_2", Ratio::Target::atMost, 1.5},
        {"list of 1,000 interfaces, in walks", "interfaces/answer_1000", "interfaces/walk_1000",
         Ratio::Target::atMost, 1.5},
        {"speed of 16 MiB to base64, of a copy's", "base64/memcpy", "base64/encode",
         Ratio::Target::atLeast, 0.7},
        {"speed of 16 MiB from base64, of a copy's", "base64/memcpy", "base64/decode",
         Ratio::Target::atLeast, 0.7},
        {"16 MiB to base64, in copies to fresh memory", "base64/encode_string",
         "base64/memcpy_fresh", Ratio::Target::atMost, 4},
        {"16 MiB from base64, in copies to fresh memory", "base64/decode_string",
         "base64/memcpy_fresh", Ratio::Target::atMost, 4},
        {"status of 16 MiB of output, in copies of its base64", "exec_status/poll", "base64/memcpy",
         Ratio::Target::atMost, 0},
        {"the same in copies to fresh memory", "exec_status/poll", "base64/memcpy_fresh",
         Ratio::Target::atMost, 4},
    };
    return all;
}

/// The program's own arguments, and defaults of the library's that stand before the given ones.
std::vector<std::string> takeArguments(int argc, char** argv, bool& check) {
    std::vector<std::string> arguments = {argv[0], "--benchmark_repetitions=5",
                                          "--benchmark_enable_random_interleaving=true",
                                          "--benchmark_min_time=0.2"};
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--check") {
            check = true;
        } else {
            arguments.emplace_back(argv[i]);
        }
    }
    return arguments;
}

}  // namespace

int main(int argc, char** argv) {
    bool check = false;
    std::vector<std::string> arguments = takeArguments(argc, argv, check);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) {
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    corvane::startReaper();
    corvane::limitHeap();

    // Before the benchmarks have used memory.
    const double ofArgument = corvane::extraMemoryOfArgument();
    const double ofCommand = corvane::extraMemoryOfUnknownCommand();
    const double ofTransfers = corvane::growthAfterTransfers();

    corvane::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\n");
    double worst = 0;
    for (const Ratio& ratio : targets()) {
        if (const auto values = reporter.ratios(ratio); !values.empty()) {
            worst = std::max(worst, corvane::printRatio(ratio, values));
        }
    }
    const auto extraMemory = [](const char* what) {
        return Ratio{what, {}, {}, Ratio::Target::atMost, 1.2};
    };
    worst = std::max(
        worst,
        corvane::printRatio(extraMemory("extra memory for the argument, in lines"), {ofArgument}));
    worst = std::max(worst,
                     corvane::printRatio(extraMemory("extra memory for the command name, in lines"),
                                         {ofCommand}));
    worst = std::max(
        worst,
        corvane::printRatio(
            {"memory more after 1,000 reads and writes, in MiB", {}, {}, Ratio::Target::atMost, 1},
            {ofTransfers}));
    return check && worst > tolerance ? 1 : 0;
}
