#include "platform/linux/linux_private_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/linux/interrupted_call.h"

namespace corvane {
namespace {

constexpr mode_t onlyTheOwner = S_IRWXU;
constexpr mode_t anybodyElse = S_IRWXG | S_IRWXO;

/// Returns 0 or an errno value. Needs no descriptor, of which there may be none left: the file that
/// is opened next says so by its name.
int whyNotPrivate(const std::string& path, uid_t user) {
    struct stat status {};
    if (untilUninterrupted([&] { return ::lstat(path.c_str(), &status); }) != 0) {
        return errno;
    }
    if (!S_ISDIR(status.st_mode)) {
        return ENOTDIR;
    }
    return status.st_uid == user && (status.st_mode & anybodyElse) == 0 ? 0 : EPERM;
}

}  // namespace

LinuxPrivateDirectory::LinuxPrivateDirectory(std::string directoryOfRoot, Environment environment,
                                             uid_t user)
    : directoryOfRoot_(std::move(directoryOfRoot)),
      environment_(std::move(environment)),
      user_(user) {}

SystemResult<std::string> LinuxPrivateDirectory::prepare() {
    std::string path;
    if (user_ == 0) {
        path = directoryOfRoot_;
        if (::mkdir(path.c_str(), onlyTheOwner) != 0 && errno != EEXIST) {
            return SystemError{errno};
        }
    } else {
        path = directoryOfTheEnvironment();
    }
    if (const int error = whyNotPrivate(path, user_); error != 0) {
        return SystemError{error};
    }
    return path;
}

std::string LinuxPrivateDirectory::directoryOfTheEnvironment() const {
    for (const char* name : {"XDG_RUNTIME_DIR", "TMPDIR"}) {
        const char* value = environment_(name);
        if (value && value[0] == '/') {
            std::string path = value;
            // A slash at the end would have a symbolic link followed.
            path.erase(path.find_last_not_of('/') + 1);
            return path.empty() ? "/" : path;
        }
    }
    return "";  // which lstat(2) calls ENOENT
}

}  // namespace corvane
