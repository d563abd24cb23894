#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace corvane {

/// What the agent remembers of a program that it has started, until the host has collected its end.
/// Destroying a record neither closes nor removes its capture files.
struct ProcessRecord {
    bool running = false;        ///< from creation until the reaper has reaped the child
    pid_t pid = 0;               ///< also the key in the table
    std::int32_t status = 0;     ///< raw wait status of waitpid(2); 0 until the child is reaped
    bool captureOutput = false;  ///< standard output and error go to capture files
    int outFd = 0;               ///< our own descriptor of the output's capture file, 0 without one
    std::string outPath;
    int errFd = 0;  ///< our own descriptor of the error output's capture file
    std::string errPath;
};

/// By process id. An entry may hold no record: a status query for an unknown process leaves one.
using ProcessTable = std::unordered_map<pid_t, std::unique_ptr<ProcessRecord>>;

extern ProcessTable processTable;

/// Held for every access to `processTable`. Whoever starts a child takes it before the fork and
/// holds it until the record is stored, so that no child can be reaped before its record exists.
extern std::mutex processTableLock;

/// Leaves the lock taken for good, and lets the process exit nevertheless.
void keepProcessTableLocked(std::unique_lock<std::mutex> lock) noexcept;

}  // namespace corvane
