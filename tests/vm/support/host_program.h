#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/vm/support/line_socket.h"

namespace corvane::vm {

/// A program of this machine and how it is to be started. It reads nothing.
struct HostProgram {
    /// The first is searched along PATH.
    std::vector<std::string> words;
    /// Files that its output is appended to; without the second both go to the first.
    std::filesystem::path outputPath;
    std::filesystem::path errorPath = {};
    /// Descriptors that it keeps, under the same numbers.
    std::vector<int> inherited = {};
    /// It ends with the process that started it; otherwise it leads a session of its own.
    bool endWithParent = true;
};

/// Starts it and returns its process id, which is the caller's to wait for. One that cannot be run
/// says so in its output and has the status 127.
pid_t startProgram(const HostProgram& program);

/// Waits for the end of a process, which may be long past, and returns what waitpid(2) tells of it,
/// 0 when it is no child; nothing when the end has not come within `limit`.
std::optional<int> awaitProgram(pid_t process, Limit limit = hangLimit);

}  // namespace corvane::vm
