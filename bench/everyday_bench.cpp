// What a person would use instead of the agent, from its start to its end: ssh(1) and scp(1) with a
// server on this machine, base64(1) of coreutils.

#include "bench/everyday_bench.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/agent_on_socket.h"
#include "bench/large_request_bench.h"
#include "commands/exec/process_table.h"
#include "core/base64.h"
#include "core/descriptor_guard.h"

namespace corvane {
namespace {

using Words = std::vector<std::string>;

/// What a program of this process is started with: its input, an output that nobody reads, and
/// signals as a shell leaves them.
class SpawnSettings {
 public:
    explicit SpawnSettings(int input) {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        ::posix_spawnattr_init(&attributes);
        sigset_t signals;
        ::sigemptyset(&signals);
        ::posix_spawnattr_setsigmask(&attributes, &signals);
        ::sigaddset(&signals, SIGPIPE);
        ::posix_spawnattr_setsigdefault(&attributes, &signals);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSettings() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

/// Returns when the program has ended, which it must do well.
void runProgram(Words& words, int input) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const SpawnSettings settings(input);
    pid_t child = -1;
    const int error = ::posix_spawnp(&child, pointers[0], &settings.actions, &settings.attributes,
                                     pointers.data(), environ);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), words[0]);
    }
    int status = -1;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(words[0] + " failed");
    }
}

/// Runs the program again and again, each time with `input` from its start on. A run handles so
/// many bytes; 0 when they are not what counts.
void runAgain(benchmark::State& state, Words words, int input, std::uintmax_t bytes) {
    const std::lock_guard reaperKeptOut(processTableLock);
    try {
        for (auto _ : state) {
            ::lseek(input, 0, SEEK_SET);
            runProgram(words, input);
        }
        if (bytes != 0) {
            state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
        }
    } catch (const std::exception& exception) {
        state.SkipWithError(exception.what());
    }
}

void runOnFile(benchmark::State& state, const Words& words, const std::string& content) {
    const DescriptorGuard file(::memfd_create("file", MFD_CLOEXEC));
    sendAll(file.borrow(), content);
    runAgain(state, words, file.borrow(), 0);
}

void encode(benchmark::State& state) {
    runOnFile(state, {"base64", "-w", "0"}, std::string(largeString, 'x'));
}

void decode(benchmark::State& state) {
    runOnFile(state, {"base64", "-d"}, encodeBase64(std::string(largeString, 'x')));
}

BENCHMARK(encode)->Name("everyday/base64_encode")->UseRealTime();
BENCHMARK(decode)->Name("everyday/base64_decode")->UseRealTime();

void addRemoteTool(const std::string& name, const Words& words, std::uintmax_t bytes) {
    benchmark::RegisterBenchmark(("everyday/" + name).c_str(), [words,
                                                                bytes](benchmark::State& state) {
        const DescriptorGuard nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        runAgain(state, words, nothing.borrow(), bytes);
    })->UseRealTime();
}

}  // namespace

void addRemoteTools(const std::string& directory) {
    const std::string config = directory + "/config";
    const std::string file = directory + "/file";
    const std::uintmax_t size = std::filesystem::file_size(file);
    addRemoteTool("ssh_true", {"ssh", "-F", config, "bench", "true"}, 0);
    addRemoteTool("ssh_cat", {"ssh", "-F", config, "bench", "cat", file}, size);
    addRemoteTool("scp", {"scp", "-q", "-F", config, "bench:" + file, "/dev/null"}, size);
}

}  // namespace corvane
