#include "commands/exec/capture_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "core/message.h"
#include "platform/platform.h"
#include "platform/private_directory.h"

namespace corvane {

namespace {

std::int32_t captureFileCounter = 0;

/// A fresh file. What stands in its place, a program that an earlier agent has started may still
/// be writing to, or it is a link to somebody's file: it is taken away, never emptied.
DescriptorGuard createFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return {};
    }
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
    return DescriptorGuard(::open(path.c_str(), flags, 0600));
}

std::optional<std::string> openCaptureFile(const std::string& path, DescriptorGuard& file) {
    file = createFile(path);
    if (file.empty()) {
        return "failed to open " + path + ": " + errorText(errno);
    }
    return std::nullopt;
}

/// Counts on from the lowest number after the highest.
void countPair() noexcept {
    captureFileCounter =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(captureFileCounter) + 1);
}

}  // namespace

std::optional<std::string> openCaptureFiles(CaptureFiles& files) {
    auto directory = platform().privateDirectory.prepare();
    if (!directory.ok()) {
        return "unable to initialize stdout and stderr paths";
    }
    const std::string number = std::to_string(captureFileCounter);
    files.outPath = directory.value() + "/stdout_" + number;
    files.errPath = directory.value() + "/stderr_" + number;
    if (auto failure = openCaptureFile(files.outPath, files.out)) {
        return failure;
    }
    if (auto failure = openCaptureFile(files.errPath, files.err)) {
        return failure;
    }
    countPair();
    return std::nullopt;
}

}  // namespace corvane
