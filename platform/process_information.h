#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// What the guest's system tells of other processes. Main thread.
class ProcessInformation {
 public:
    virtual ~ProcessInformation() = default;

    /// The path of the file behind the process's standard input (its descriptor 0), among the
    /// mounts of that process, cut to 1,023 bytes. Nothing when there is no such process, when it
    /// has ended, when its input is closed, or when that is no object of the file system: a pipe, a
    /// socket.
    virtual std::optional<std::string> inputPath(pid_t process) = 0;

    /// Opens that same file, whatever its path means to us, for reading, without blocking and
    /// without taking a terminal as our own. The descriptor is close-on-exec. Or an errno value.
    virtual SystemResult<DescriptorGuard> openInput(pid_t process) = 0;
};

}  // namespace corvane
