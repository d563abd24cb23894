#include "platform/linux/linux_process_information.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "platform/linux/interrupted_call.h"

namespace corvane {

LinuxProcessInformation::LinuxProcessInformation(std::string procRoot)
    : procRoot_(std::move(procRoot)) {}

std::optional<std::string> LinuxProcessInformation::inputPath(pid_t process) {
    if (process <= 0) {
        return std::nullopt;
    }
    std::array<char, longestPath> path{};
    const ssize_t length = ::readlink(inputLink(process).c_str(), path.data(), path.size());
    // What is no object of the file system has a name like "pipe:[4026]".
    if (length <= 0 || path[0] != '/') {
        return std::nullopt;
    }
    return std::string(path.data(), static_cast<std::size_t>(length));
}

SystemResult<DescriptorGuard> LinuxProcessInformation::openInput(pid_t process) {
    if (process <= 0) {
        return SystemError{ESRCH};
    }
    const std::string link = inputLink(process);
    // The kernel takes this link straight to the file. Its path may mean another file here, or
    // none: the process may have mounts of its own, and the file may have been renamed or deleted.
    DescriptorGuard opened(untilUninterrupted(
        [&] { return ::open(link.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (opened.empty()) {
        return SystemError{errno};
    }
    return opened;
}

std::string LinuxProcessInformation::inputLink(pid_t process) const {
    return procRoot_ + "/" + std::to_string(process) + "/fd/0";
}

}  // namespace corvane
