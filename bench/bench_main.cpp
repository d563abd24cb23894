// Runs the benchmarks several times over, in mixed order, and prints the ratios that matter.
//
//   corvane_bench [--check] [--table=FILE] [--ssh=DIRECTORY] [OPTION OF THE LIBRARY...]
//
// --check: status 1 when a target is missed by a lot. --table: the ratios go to this file, too, see
// ratio_table.cpp. --ssh: OpenSSH's clients are measured as well, see everyday_bench.h.

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/everyday_bench.h"
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
         Ratio::Target::atLeast, 0.85},
        {"the same on one processor", "ping1/echo", "ping1/agent", Ratio::Target::atLeast, 0.85},
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
        {"copies of 100 MB to fresh memory, in those of 10 MB", "line/copy_100MB", "line/copy_10MB",
         Ratio::Target::atMost, 0},
        {"line of 100 MB, in copies of it to fresh memory", "line/read_100MB", "line/copy_100MB",
         Ratio::Target::atMost, 0},
        {"line of 100 MB over a socket, in such of 10 MB", "line/socket_100MB", "line/socket_10MB",
         Ratio::Target::atMost, 12},
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
        {"start to reported exit of true, in those by ssh", "exec/agent_true", "everyday/ssh_true",
         Ratio::Target::atMost, 0},
        {"file bytes read per second, of those of ssh cat", "everyday/ssh_cat", "file/read",
         Ratio::Target::atLeast, 0},
        {"file bytes read per second, of those of scp", "everyday/scp", "file/read",
         Ratio::Target::atLeast, 0},
        {"file transfer to a listener, of ssh cat's speed", "everyday/ssh_cat", "vsock/read",
         Ratio::Target::atLeast, 0},
        {"file transfer to a listener, of scp's speed", "everyday/scp", "vsock/read",
         Ratio::Target::atLeast, 0},
        {"16 MiB to base64, in those of coreutils' base64", "base64/encode_string",
         "everyday/base64_encode", Ratio::Target::atMost, 0},
        {"16 MiB from base64, in those of coreutils' base64", "base64/decode_string",
         "everyday/base64_decode", Ratio::Target::atMost, 0},
    };
    return all;
}

struct Options {
    bool check = false;
    std::string table;
    std::string ssh;
    int repetitions = 5;
    /// The library's, with defaults before those that were given.
    std::vector<std::string> others;
};

Options readOptions(int argc, char** argv) {
    Options options;
    options.others = {argv[0], "--benchmark_repetitions=" + std::to_string(options.repetitions),
                      "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.2"};
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const std::string value(word.substr(std::min(word.find('='), word.size() - 1) + 1));
        if (word == "--check") {
            options.check = true;
        } else if (word.starts_with("--table=")) {
            options.table = value;
        } else if (word.starts_with("--ssh=")) {
            options.ssh = value;
        } else {
            if (word.starts_with("--benchmark_repetitions=")) {
                options.repetitions = std::max(1, std::stoi(value));
            }
            options.others.emplace_back(word);
        }
    }
    return options;
}

/// An amount of memory, measured so many times; `unit` is what it is compared with, in MiB.
struct MemoryFigure {
    MemoryFigure(Ratio asRatio, double inMebibytes, int times, double (*measure)())
        : ratio(std::move(asRatio)), unit(inMebibytes) {
        for (int i = 0; i < times; ++i) {
            values.push_back(measure());
        }
        std::sort(values.begin(), values.end());
    }
    void addTo(corvane::RatioTable& table) const {
        table.add(ratio, values, corvane::shownMebibytes(corvane::medianOf(values) * unit),
                  corvane::shownMebibytes(unit));
    }

    Ratio ratio;
    double unit;
    std::vector<double> values;
};

/// In new processes, which must be made before the benchmarks have used memory.
std::vector<MemoryFigure> measureMemory(int times) {
    constexpr double line = static_cast<double>(corvane::largeString) / (1 << 20);
    return {
        {{"extra memory for the argument, in lines", {}, {}, Ratio::Target::atMost, 1.2},
         line,
         times,
         corvane::extraMemoryOfArgument},
        {{"extra memory for the command name, in lines", {}, {}, Ratio::Target::atMost, 1.2},
         line,
         times,
         corvane::extraMemoryOfUnknownCommand},
        {{"memory more after 1,000 reads and writes, in MiB", {}, {}, Ratio::Target::atMost, 1},
         1,
         times,
         corvane::growthAfterTransfers},
    };
}

}  // namespace

int main(int argc, char** argv) {
    Options options = readOptions(argc, argv);
    std::vector<char*> pointers;
    for (std::string& option : options.others) {
        pointers.push_back(option.data());
    }
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) {
        return 2;
    }
    if (!options.ssh.empty()) {
        corvane::addRemoteTools(options.ssh);
    }
    ::signal(SIGPIPE, SIG_IGN);
    corvane::startReaper();
    corvane::limitHeap();
    corvane::RatioTable table(options.table);
    const std::vector<MemoryFigure> memory = measureMemory(options.repetitions);

    corvane::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\n");
    std::fflush(stdout);
    for (const Ratio& ratio : targets()) {
        reporter.addTo(table, ratio);
    }
    for (const MemoryFigure& figure : memory) {
        figure.addTo(table);
    }
    for (const auto& [name, reason] : reporter.failures()) {
        std::printf("not measured: %s: %s\n", name.c_str(), reason.c_str());
    }
    return options.check && table.worst() > tolerance ? 1 : 0;
}
