// From the request that starts a program to the answer that it has ended, beside a bare fork, exec
// and wait in the same process.

#include "bench/exec_bench.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "commands/exec/process_table.h"
#include "commands/exec/reaper.h"

namespace corvane {

void startReaper() {
    sigset_t childSignal;
    ::sigemptyset(&childSignal);
    ::sigaddset(&childSignal, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &childSignal, nullptr);
    std::thread(reapChildren).detach();
}

namespace {

constexpr std::string_view startRequest =
    R"({"execute":"guest-exec","arguments":{"path":")" DO_NOTHING_PATH "\"}}\n";

/// Starts what a person would, beside ssh: see everyday_bench.cpp.
constexpr std::string_view startTrueRequest =
    R"({"execute":"guest-exec","arguments":{"path":"/bin/true"}})"
    "\n";

std::string pidOf(std::string_view startAnswer) {
    const auto digits = startAnswer.find_first_of("0123456789");
    const auto end = startAnswer.find_first_not_of("0123456789", digits);
    return std::string(startAnswer.substr(digits, end - digits));
}

/// Returns when the program has ended. A host that asked without end instead would take the
/// processor away from the program.
void awaitEnd(const std::string& pid) {
    const DescriptorGuard process(static_cast<int>(::syscall(SYS_pidfd_open, std::stoi(pid), 0)));
    if (!process.empty()) {  // otherwise it has been reaped
        pollfd waited{process.borrow(), POLLIN, 0};
        ::poll(&waited, 1, -1);
    }
}

void startAndAwait(int agent, std::string_view start) {
    sendAll(agent, start);
    const std::string pid = pidOf(receiveLine(agent));
    awaitEnd(pid);
    const std::string request =
        R"({"execute":"guest-exec-status","arguments":{"pid":)" + pid + "}}\n";
    std::string_view answer;
    do {
        sendAll(agent, request);
        answer = receiveLine(agent);
    } while (answer.find("false") != std::string_view::npos);
    if (answer.find("\"exitcode\":0") == std::string_view::npos) {
        throw std::runtime_error("the program did not start");
    }
}

void forkAndAwait() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl(DO_NOTHING_PATH, DO_NOTHING_PATH, nullptr);
        ::_exit(255);
    }
    int status = -1;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("the program did not start");
    }
}

/// Memory of which every page is in use.
std::vector<char> residentMegabytes(benchmark::IterationCount count) {
    return std::vector<char>(static_cast<std::size_t>(count) * 1000 * 1000, 'x');
}

void startFromAgent(benchmark::State& state) {
    const auto resident = residentMegabytes(state.range(0));
    const AgentOnSocket agent;
    for (auto _ : state) {
        startAndAwait(agent.hostEnd(), startRequest);
    }
    benchmark::DoNotOptimize(resident.data());
}

void startTrue(benchmark::State& state) {
    const AgentOnSocket agent;
    for (auto _ : state) {
        startAndAwait(agent.hostEnd(), startTrueRequest);
    }
}

void startByFork(benchmark::State& state) {
    const auto resident = residentMegabytes(state.range(0));
    const std::lock_guard reaperKeptOut(processTableLock);
    for (auto _ : state) {
        forkAndAwait();
    }
    benchmark::DoNotOptimize(resident.data());
}

BENCHMARK(startFromAgent)->Name("exec/agent")->Arg(0)->UseRealTime();
BENCHMARK(startByFork)->Name("exec/bare_fork")->Arg(0)->UseRealTime();
BENCHMARK(startTrue)->Name("exec/agent_true")->UseRealTime();
BENCHMARK(startFromAgent)->Name("exec/agent_10MB")->Arg(10)->UseRealTime();
BENCHMARK(startFromAgent)->Name("exec/agent_512MB")->Arg(512)->UseRealTime();
BENCHMARK(startByFork)->Name("exec/bare_fork_10MB")->Arg(10)->UseRealTime();
BENCHMARK(startByFork)->Name("exec/bare_fork_512MB")->Arg(512)->UseRealTime();

}  // namespace
}  // namespace corvane
