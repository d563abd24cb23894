#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "commands/exec/child_setup.h"
#include "commands/exec/exec_request.h"
#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// All that a child needs between its start and its program, in one place that outlives the
/// request: argv, environment, the paths to try, and the child's stack. Not movable, since it is
/// full of addresses of its own. Main thread.
class ChildProcess {
 public:
    /// Takes all of the request but for its streams. A program's name without a slash is searched
    /// along the PATH of the environment that the program gets: see exec(3), execvp.
    explicit ChildProcess(ExecRequest request);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// To be completed with the streams and `untilStart` before the start.
    ChildSetup setup;

    /// To be given before the start: the read end of a pipe whose write end is `setup.untilStart`.
    /// At its end of input the child has left our memory.
    DescriptorGuard started;

    /// Makes room to keep one more child, and lets go of those that have become their programs or
    /// have ended.
    static void reserveStart();

    /// Starts the child. It shares the agent's memory until it has become its program, so that the
    /// cost of a start does not grow with the agent; one that takes another identity has a memory
    /// of its own. Keeps `child`; `reserveStart` must have been called. All signals must be
    /// blocked. Returns the process id or clone(2)'s error.
    static SystemResult<pid_t> start(std::unique_ptr<ChildProcess> child) noexcept;

    /// Waits until the child that was started last has become its program or has ended, and lets go
    /// of it. Gives up after a second: a child may hang in a file system that does not answer.
    static void awaitStart() noexcept;

 private:
    static constexpr std::size_t stackSize = 16 * 1024;

    void findCandidates();
    bool hasStarted(int patience) const noexcept;

    ExecRequest request_;
    std::vector<std::string> candidatePaths_;
    std::vector<char*> argumentList_;
    std::vector<char*> environmentList_;
    std::vector<const char*> candidateList_;
    std::vector<const char*> shellArgumentList_;
    std::unique_ptr<std::byte[]> stack_;
};

}  // namespace corvane
