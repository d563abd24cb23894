#pragma once

#include "platform/process_information.h"

namespace corvane {

/// Processes as /proc shows them. See proc(5), /proc/[pid]/fd.
class LinuxProcessInformation final : public ProcessInformation {
 public:
    /// In bytes; of a longer path the first so many are told.
    static constexpr std::size_t longestPath = 1023;

    explicit LinuxProcessInformation(std::string procRoot = "/proc");

    /// A file that has been deleted is told as "PATH (deleted)", which is how the kernel names it.
    std::optional<std::string> inputPath(pid_t process) override;
    /// ESRCH for numbers that are no process's; ENOENT for a process that is not there, has ended,
    /// or has closed its input; EACCES for one that we may not look into.
    SystemResult<DescriptorGuard> openInput(pid_t process) override;

 private:
    [[nodiscard]] std::string inputLink(pid_t process) const;

    std::string procRoot_;
};

}  // namespace corvane
