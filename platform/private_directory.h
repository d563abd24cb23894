#pragma once

#include <string>

#include "core/system_result.h"

namespace corvane {

/// A directory for the agent's own temporary files, in which nobody else can read, write or plant
/// anything. Main thread.
class PrivateDirectory {
 public:
    virtual ~PrivateDirectory() = default;

    /// Makes the directory where it is missing and makes sure that it is private. Answers its
    /// absolute path, without a slash at its end, or the errno value of what failed: EPERM for one
    /// that is not private, which is left as it is. Asked before each use: the directory may have
    /// vanished or changed since.
    virtual SystemResult<std::string> prepare() = 0;
};

}  // namespace corvane
