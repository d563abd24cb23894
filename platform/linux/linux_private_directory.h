#pragma once

#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "platform/private_directory.h"

namespace corvane {

/// For root a directory of the agent's own, which is made (mode 0700) whenever it is missing. For
/// another user what $XDG_RUNTIME_DIR names, or, where that is unset, $TMPDIR; these are never
/// made.
///
/// Each time it must be a directory and no symbolic link, belong to the user and give nothing to
/// group and others. What fails that is refused and left as it is: EPERM, or what open(2) says of
/// something that is no directory. A variable counts as unset when it holds no absolute path;
/// ENOENT when both do.
class LinuxPrivateDirectory final : public PrivateDirectory {
 public:
    /// Finds a variable of the environment, as getenv(3).
    using Environment = std::function<const char*(const char* name)>;

    explicit LinuxPrivateDirectory(std::string directoryOfRoot = "/run/corvane",
                                   Environment environment = ::getenv, uid_t user = ::geteuid());

    SystemResult<std::string> prepare() override;

 private:
    [[nodiscard]] std::string directoryOfTheEnvironment() const;

    std::string directoryOfRoot_;
    Environment environment_;
    uid_t user_;
};

}  // namespace corvane
