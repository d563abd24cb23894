#include "commands/exec/child_process.h"

#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <limits.h>
#include <optional>
#include <string_view>
#include <time.h>
#include <utility>

#ifdef __GLIBC__
// The name of clone(2) that the thread sanitizer leaves alone: its wrapper takes every child for a
// fork with a memory of its own, and changes what it keeps of our threads.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument,  // NOLINT
                       ...) noexcept;
#endif

namespace corvane {

namespace {

#ifdef __GLIBC__
constexpr auto cloneProcess = &__clone;
#else
constexpr auto cloneProcess = &::clone;
#endif

constexpr time_t startPatience = 1;  // seconds
constexpr char shell[] = "/bin/sh";
constexpr std::string_view defaultSearchPath = "/bin:/usr/bin";  // confstr(3), _CS_PATH

/// Children that may still share our memory. Never destroyed: they may do so when the agent exits.
auto& starting = *std::make_unique<std::vector<std::unique_ptr<ChildProcess>>>().release();

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (std::string& string : strings) {
        pointers.push_back(string.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// The value of PATH, from the first entry as getenv(3) takes it.
std::optional<std::string_view> searchPathOf(const char* const* environment) {
    constexpr std::string_view name = "PATH=";
    for (; *environment; ++environment) {
        const std::string_view entry = *environment;
        if (entry.starts_with(name)) {
            return entry.substr(name.size());
        }
    }
    return std::nullopt;
}

}  // namespace

ChildProcess::ChildProcess(ExecRequest request)
    : request_(std::move(request)), stack_(std::make_unique_for_overwrite<std::byte[]>(stackSize)) {
    if (request_.workingDirectory) {
        setup.workingDirectory = request_.workingDirectory->c_str();
    }
    setup.group = request_.group ? &*request_.group : nullptr;
    setup.user = request_.user ? &*request_.user : nullptr;
    argumentList_ = pointersTo(request_.arguments);
    argumentList_.insert(argumentList_.begin(), request_.path.data());
    setup.arguments = argumentList_.data();
    setup.environment = environ;
    if (request_.environment) {
        environmentList_ = pointersTo(*request_.environment);
        setup.environment = environmentList_.data();
    }
    findCandidates();
    for (const std::string& path : candidatePaths_) {
        candidateList_.push_back(path.c_str());
    }
    candidateList_.push_back(nullptr);
    setup.candidates = candidateList_.data();
    shellArgumentList_.assign(argumentList_.begin(), argumentList_.end());
    shellArgumentList_.insert(shellArgumentList_.begin(), shell);
    setup.shellArguments = shellArgumentList_.data();
}

/// As execvp(3) of the C library tries them: an empty element of PATH is the current directory, and
/// names that are too long are passed over.
void ChildProcess::findCandidates() {
    const std::string_view name = request_.path.c_str();
    if (name.find('/') != std::string_view::npos) {
        candidatePaths_.emplace_back(name);
        return;
    }
    if (name.empty() || name.size() > NAME_MAX) {
        return;
    }
    std::string_view rest = searchPathOf(setup.environment).value_or(defaultSearchPath);
    for (bool more = true; more;) {
        const auto end = rest.find(':');
        const std::string_view folder = rest.substr(0, end);
        more = end != std::string_view::npos;
        rest.remove_prefix(more ? end + 1 : rest.size());
        if (folder.size() < PATH_MAX) {
            std::string path(folder);
            path += folder.empty() ? "" : "/";
            candidatePaths_.push_back(path.append(name));
        }
    }
}

bool ChildProcess::hasLeftOurMemory() noexcept {
    return std::atomic_ref(sharing_).load(std::memory_order_acquire) == 0;
}

void ChildProcess::reserveStart() {
    std::erase_if(starting, [](const auto& child) { return child->hasLeftOurMemory(); });
    starting.reserve(starting.size() + 1);
}

SystemResult<pid_t> ChildProcess::start(std::unique_ptr<ChildProcess> child) noexcept {
    // CLONE_CHILD_CLEARTID: the kernel clears `sharing_` when the child lets go of our memory.
    const pid_t pid = cloneProcess(runChild, child->stack_.get() + stackSize,
                                   CLONE_VM | CLONE_CHILD_CLEARTID | SIGCHLD, &child->setup,
                                   nullptr, nullptr, &child->sharing_);
    if (pid < 0) {
        return SystemError{errno};
    }
    starting.push_back(std::move(child));
    return pid;
}

void ChildProcess::awaitStart() noexcept {
    timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += startPatience;
    ChildProcess& child = *starting.back();
    while (!child.hasLeftOurMemory()) {
        // The wake-up that goes with CLONE_CHILD_CLEARTID. See futex(2) for the absolute time.
        const long result = ::syscall(SYS_futex, &child.sharing_, FUTEX_WAIT_BITSET, stillSharing,
                                      &end, nullptr, FUTEX_BITSET_MATCH_ANY);
        if (result < 0 && errno == ETIMEDOUT) {
            return;
        }
    }
    starting.pop_back();
}

}  // namespace corvane
