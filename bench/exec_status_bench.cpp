// A poll of a program that has written 16 MiB, from the parsed request to the text of the answer.
// What bounds it is a copy of the output's base64: see base64_bench.cpp.

#include <sys/mman.h>

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "bench/large_request_bench.h"
#include "commands/exec/exec_status.h"
#include "commands/exec/process_table.h"
#include "core/command_table.h"
#include "core/dispatcher.h"
#include "core/heap.h"
#include "core/json_writer.h"

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::array<Command, 1> execStatusAlone = {{
    {"guest-exec-status", handleGuestExecStatus, 1, ReportCondition::always},
}};

constexpr pid_t process = 1;

/// A running process with `output` in its capture files, which are in memory like the page cache's.
class CapturingProcess {
 public:
    explicit CapturingProcess(const std::string& output) {
        auto record = std::make_unique<ProcessRecord>();
        record->running = true;
        record->captureOutput = true;
        record->outFd = out_.borrow();
        record->errFd = err_.borrow();
        sendAll(out_.borrow(), output);
        const std::lock_guard lock(processTableLock);
        processTable[process] = std::move(record);
    }
    ~CapturingProcess() {
        const std::lock_guard lock(processTableLock);
        processTable.erase(process);
    }
    CapturingProcess(const CapturingProcess&) = delete;
    CapturingProcess& operator=(const CapturingProcess&) = delete;

 private:
    DescriptorGuard out_{::memfd_create("out", MFD_CLOEXEC)};
    DescriptorGuard err_{::memfd_create("err", MFD_CLOEXEC)};
};

JsonValue request() {
    JsonObject arguments;
    arguments.add("pid", JsonNumber::fromSigned(process));
    JsonObject request;
    request.add("execute", std::string("guest-exec-status"));
    request.add("arguments", std::move(arguments));
    return request;
}

void poll(benchmark::State& state) {
    const BenchPlatform platform;
    useCommandTable(execStatusAlone);
    const CapturingProcess capturing(std::string(largeString, 'x'));
    const JsonValue question = request();
    for (auto _ : state) {
        trimHeap();  // as the read loop does after each response of this size
        const auto start = Clock::now();
        {
            const JsonValue response = dispatchRequest(question);
            const std::string line = writeJson(response, {}, "\n");
            if (line.size() < largeString / 3 * 4) {
                state.SkipWithError("the output is not there");
            }
            benchmark::DoNotOptimize(line.data());
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

BENCHMARK(poll)->Name("exec_status/poll")->UseManualTime();

}  // namespace
}  // namespace corvane
