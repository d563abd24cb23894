#include "platform/linux/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "core/descriptor_guard.h"
#include "platform/linux/interrupted_call.h"

namespace corvane {

SystemResult<std::string> readSmallFile(const std::string& path, std::size_t limit) {
    // Non-blocking, so that a FIFO in the file's place cannot hold us.
    const DescriptorGuard file(untilUninterrupted(
        [&path] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (file.empty()) {
        return SystemError{errno};
    }
    std::string content;
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t count = ::read(file.borrow(), piece.data(), piece.size());
        if (count == 0) {
            return content;
        }
        if (count > 0) {
            content.append(piece.data(), static_cast<std::size_t>(count));
            if (content.size() > limit) {
                return SystemError{EFBIG};
            }
        } else if (errno != EINTR) {
            return SystemError{errno};
        }
    }
}

}  // namespace corvane
