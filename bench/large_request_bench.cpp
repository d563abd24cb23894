// A request with a string of 16 MiB, from the line in pending input to the text of the answer,
// beside a copy of the string in memory.

#include "bench/large_request_bench.h"

#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "bench/peak_memory.h"
#include "core/dispatcher.h"
#include "core/heap.h"
#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/pending_input.h"

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

/// As the read loop takes a line in.
void fill(PendingInput& pending, std::string_view text) {
    constexpr std::size_t readSize = 8192;
    for (; !text.empty(); text.remove_prefix(std::min(readSize, text.size()))) {
        pending.append(text.substr(0, readSize));
    }
}

/// As the read loop answers a line.
std::string answer(PendingInput& pending) {
    auto line = pending.takeLine();
    JsonValue response;
    {
        const JsonOutcome outcome = readJson(std::move(line.value()));
        response = dispatchRequest(std::get<JsonValue>(outcome));
    }
    return writeJson(response, {}, "\n");
}

std::string requestWithArgument() {
    return R"({"execute":"ignore","arguments":{"data":")" + std::string(largeString, 'x') +
           "\"}}\n";
}

std::string requestOfUnknownCommand() {
    return R"({"execute":")" + std::string(largeString, 'x') + "\"}\n";
}

void answerRequest(benchmark::State& state, std::string (*makeRequest)()) {
    const BenchPlatform platform;
    const std::string request = makeRequest();
    for (auto _ : state) {
        trimHeap();  // as the read loop does after each request of this size
        PendingInput pending;
        fill(pending, request);
        const auto start = Clock::now();
        {
            const std::string response = answer(pending);
            benchmark::DoNotOptimize(response.data());
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

/// Into memory that is in use already: what the hardware can do, and no more.
void copy(benchmark::State& state) {
    const std::string source(largeString, 'x');
    std::string target(largeString, 'y');
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), largeString);
        benchmark::ClobberMemory();
    }
}

/// Into memory fresh from the system, as any that holds a string that was not there before.
void copyToFreshMemory(benchmark::State& state) {
    const std::string source(largeString, 'x');
    for (auto _ : state) {
        void* const target = ::mmap(nullptr, largeString, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (target == MAP_FAILED) {
            state.SkipWithError("no memory");
            break;
        }
        std::memcpy(target, source.data(), largeString);
        benchmark::DoNotOptimize(target);
        benchmark::ClobberMemory();
        ::munmap(target, largeString);
    }
}

BENCHMARK(copy)->Name("large/memcpy")->UseRealTime();
BENCHMARK(copyToFreshMemory)->Name("large/memcpy_fresh")->UseRealTime();
BENCHMARK_CAPTURE(answerRequest, argument, requestWithArgument)
    ->Name("large/argument")
    ->UseManualTime();
BENCHMARK_CAPTURE(answerRequest, unknown, requestOfUnknownCommand)
    ->Name("large/unknown_command")
    ->UseManualTime();

double extraMemory(std::string (*makeRequest)()) {
    std::optional<BenchPlatform> platform;
    PendingInput pending;
    const auto prepare = [&] {
        platform.emplace();
        fill(pending, makeRequest());
        trimHeap();
    };
    const auto act = [&] { benchmark::DoNotOptimize(answer(pending).data()); };
    return static_cast<double>(peakExtraMemory(prepare, act)) / static_cast<double>(largeString);
}

}  // namespace

double extraMemoryOfArgument() {
    return extraMemory(requestWithArgument);
}
double extraMemoryOfUnknownCommand() {
    return extraMemory(requestOfUnknownCommand);
}

}  // namespace corvane
