// fopen(3) as it is leaves three things to wish for in a service that runs as root:
//
// - Its descriptors are inherited unless the mode says otherwise.
// - A session leader without a controlling terminal, as every service is, gets one from any
//   terminal that it opens, and is ended when that terminal hangs up.
// - The letter m maps the file into memory: whoever shortens it then ends the reader with SIGBUS.
//
// So the file is opened by open(2), with the flags that a mode stands for, and a stream is put on
// top. No mode can say O_NOCTTY, and to look at the file first would leave it time to change.

#include "platform/linux/linux_file_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "core/descriptor_guard.h"

namespace corvane {

namespace {

/// glibc looks at no more of a mode than this.
constexpr std::size_t letterCount = 7;

bool hasLetter(std::string_view mode, char letter) {
    return mode.substr(0, letterCount).find(letter) != std::string_view::npos;
}

/// The flags of open(2) that a mode stands for.
int openFlags(std::string_view mode) {
    const bool reads = mode.starts_with('r');
    int flags = O_CLOEXEC | O_NOCTTY;
    flags |= hasLetter(mode, '+') ? O_RDWR : reads ? O_RDONLY : O_WRONLY;
    flags |= reads ? 0 : O_CREAT | (mode.starts_with('a') ? O_APPEND : O_TRUNC);
    flags |= hasLetter(mode, 'x') ? O_EXCL : 0;
    return flags;
}

/// What of a mode is left for fdopen(3), which looks at fewer letters than fopen(3).
std::string streamMode(std::string_view mode) {
    return std::string(1, mode.front()) + (hasLetter(mode, '+') ? "+" : "");
}

OwnedStream openTamed(const std::string& path, const std::string& mode) {
    constexpr mode_t everybody = 0666;  // less the umask, as fopen(3) makes a file
    DescriptorGuard file(::open(path.c_str(), openFlags(mode), everybody));
    if (file.empty()) {
        return nullptr;
    }
    const std::string kind = streamMode(mode);
    if (kind == "a") {
        ::lseek(file.borrow(), 0, SEEK_END);  // as fopen(3) does
    }
    OwnedStream stream(::fdopen(file.borrow(), kind.c_str()));
    if (stream != nullptr) {
        static_cast<void>(file.release());
    }
    return stream;
}

/// A character set, which only fopen(3) knows what to do with.
bool hasCharacterSet(std::string_view mode) {
    return mode.find(",ccs=") != std::string_view::npos;
}

/// In the place of an m the large letter means nothing, and the same in the name of the set.
OwnedStream openWithCharacterSet(const std::string& path, std::string mode) {
    const auto letters = static_cast<std::ptrdiff_t>(std::min(mode.size(), letterCount));
    std::replace(mode.begin(), mode.begin() + letters, 'm', 'M');
    OwnedStream stream(std::fopen(path.c_str(), mode.c_str()));
    if (stream != nullptr) {
        // A moment late, but only the thread that is here starts programs.
        ::fcntl(::fileno(stream.get()), F_SETFD, FD_CLOEXEC);
    }
    return stream;
}

bool isModeKnown(std::string_view mode) {
    return mode.starts_with('r') || mode.starts_with('w') || mode.starts_with('a');
}

}  // namespace

OwnedStream LinuxFileStreams::open(const std::string& path, const std::string& mode) {
    constexpr char nul = '\0';
    if (path.find(nul) != std::string::npos || mode.find(nul) != std::string::npos ||
        !isModeKnown(mode)) {
        return nullptr;
    }
    return hasCharacterSet(mode) ? openWithCharacterSet(path, mode) : openTamed(path, mode);
}

}  // namespace corvane
