// Lines of 10 and of 100 megabytes: ten times the bytes should take about ten times the time.

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "core/heap.h"
#include "core/json_reader.h"
#include "core/pending_input.h"

namespace corvane {
namespace {

constexpr std::size_t megabyte = 1'000'000;

std::string requestOfSize(std::size_t size) {
    return R"({"execute":"ignore","arguments":{"data":")" + std::string(size, 'x') + "\"}}\n";
}

void readLine(benchmark::State& state, std::size_t size) {
    constexpr std::size_t readSize = 8192;
    const std::string request = requestOfSize(size);
    for (auto _ : state) {
        trimHeap();  // as the read loop does after each line of this size
        PendingInput pending;
        std::optional<RequestLine> line;
        for (std::string_view rest = request; !rest.empty();) {
            pending.append(rest.substr(0, readSize));
            rest.remove_prefix(std::min(readSize, rest.size()));
            line = pending.takeLine();
        }
        const JsonOutcome outcome = readJson(std::move(line.value()));
        if (!std::holds_alternative<JsonValue>(outcome)) {
            state.SkipWithError("the line was not read");
        }
    }
}

/// What any reader of such a line needs: its pieces, and then its string, in memory fresh from the
/// system.
void copyLine(benchmark::State& state, std::size_t size) {
    constexpr std::size_t readSize = 8192;
    const std::string request = requestOfSize(size);
    for (auto _ : state) {
        trimHeap();
        std::vector<std::string> pieces;
        for (std::size_t at = 0; at < request.size(); at += readSize) {
            pieces.emplace_back(request, at, readSize);
        }
        std::string whole;
        whole.reserve(request.size());
        for (const std::string& piece : pieces) {
            whole += piece;
        }
        benchmark::DoNotOptimize(whole.data());
    }
}

void answerOverSocket(benchmark::State& state, std::size_t size) {
    const AgentOnSocket agent;
    const std::string request = requestOfSize(size);
    for (auto _ : state) {
        sendAll(agent.hostEnd(), request);
        receiveLine(agent.hostEnd());
    }
}

BENCHMARK_CAPTURE(readLine, 10, 10 * megabyte)->Name("line/read_10MB")->UseRealTime();
BENCHMARK_CAPTURE(readLine, 100, 100 * megabyte)->Name("line/read_100MB")->UseRealTime();
BENCHMARK_CAPTURE(copyLine, 10, 10 * megabyte)->Name("line/copy_10MB")->UseRealTime();
BENCHMARK_CAPTURE(copyLine, 100, 100 * megabyte)->Name("line/copy_100MB")->UseRealTime();
BENCHMARK_CAPTURE(answerOverSocket, 10, 10 * megabyte)->Name("line/socket_10MB")->UseRealTime();
BENCHMARK_CAPTURE(answerOverSocket, 100, 100 * megabyte)->Name("line/socket_100MB")->UseRealTime();

}  // namespace
}  // namespace corvane
