#include "commands/exec/child_process.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <limits.h>
#include <optional>
#include <string_view>
#include <utility>

// The name of clone(2) that the thread sanitizer leaves alone: its wrapper takes every child for a
// fork with a memory of its own, and changes what it keeps of our threads.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument,  // NOLINT
                       ...) noexcept;

namespace corvane {

namespace {

constexpr int startPatience = 1000;  // milliseconds
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
/// elements that are too long are passed over.
void ChildProcess::findCandidates() {
    const std::string_view name = request_.path.c_str();
    if (name.find('/') != std::string_view::npos) {
        candidatePaths_.emplace_back(name);
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

/// Waits `patience` milliseconds for it.
bool ChildProcess::hasStarted(int patience) const noexcept {
    pollfd waited{started.borrow(), POLLIN, 0};
    int ready = -1;
    do {
        ready = ::poll(&waited, 1, patience);
    } while (ready < 0 && errno == EINTR);
    return ready == 1;
}

void ChildProcess::reserveStart() {
    std::erase_if(starting, [](const auto& child) { return child->hasStarted(0); });
    starting.reserve(starting.size() + 1);
}

SystemResult<pid_t> ChildProcess::start(std::unique_ptr<ChildProcess> child) noexcept {
    const bool keepsIdentity = !child->request_.user && !child->request_.group;
    const pid_t pid = __clone(runChild, child->stack_.get() + stackSize,
                              (keepsIdentity ? CLONE_VM : 0) | SIGCHLD, &child->setup);
    if (pid < 0) {
        return SystemError{errno};
    }
    starting.push_back(std::move(child));
    return pid;
}

void ChildProcess::awaitStart() noexcept {
    if (starting.back()->hasStarted(startPatience)) {
        starting.pop_back();
    }
}

}  // namespace corvane
