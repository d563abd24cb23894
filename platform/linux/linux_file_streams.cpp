// fopen(3) as it is leaves three things to wish for in a service that runs as root:
//
// - Its descriptors are inherited. The letter e of the mode mends that from the start.
// - A session leader without a controlling terminal, as every service is, gets one from any
//   terminal that it opens, and is ended when that terminal hangs up. There is no letter for
//   O_NOCTTY, so that a terminal is opened as a descriptor, and put under a stream.
// - The letter m maps the file into memory: whoever shortens it then ends the reader with SIGBUS.
//   Nothing but speed depends on the letter, and it is not passed on.

#include "platform/linux/linux_file_streams.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "core/descriptor_guard.h"

namespace corvane {

namespace {

/// glibc looks at no more of a mode than this, be it a letter, a comma or what follows that.
constexpr std::size_t letterCount = 7;

bool hasLetter(std::string_view mode, char letter) {
    return mode.substr(0, letterCount).find(letter) != std::string_view::npos;
}

/// The large letter means nothing, and the same in the name of a character set.
std::string withoutMapping(std::string mode) {
    const auto letters = static_cast<std::ptrdiff_t>(std::min(mode.size(), letterCount));
    std::replace(mode.begin(), mode.begin() + letters, 'm', 'M');
    return mode;
}

/// Where there is room for one more letter. The few modes without get the flag a moment later;
/// only the thread that is here starts programs.
std::string withCloseOnExec(std::string mode) {
    if (!mode.empty() && mode.size() < letterCount) {
        mode.insert(1, 1, 'e');
    }
    return mode;
}

bool isCharacterDevice(const std::string& path) {
    struct stat file {};
    return ::stat(path.c_str(), &file) == 0 && S_ISCHR(file.st_mode);
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

/// fdopen(3) understands less of a mode than fopen(3): fewer letters, and no character set. So the
/// stream is made on another device, and gets its own after that.
OwnedStream openCharacterDevice(const std::string& path, const std::string& mode) {
    constexpr mode_t everybody = 0666;  // less the umask, as fopen(3) makes a file
    const DescriptorGuard device(::open(path.c_str(), openFlags(mode), everybody));
    if (device.empty()) {
        return nullptr;
    }
    OwnedStream stream(std::fopen("/dev/null", mode.c_str()));
    if (stream != nullptr && ::dup3(device.borrow(), ::fileno(stream.get()), O_CLOEXEC) == -1) {
        return nullptr;
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
    const std::string tamed = withoutMapping(mode);
    if (isCharacterDevice(path)) {
        return openCharacterDevice(path, tamed);
    }
    OwnedStream stream(std::fopen(path.c_str(), withCloseOnExec(tamed).c_str()));
    if (stream != nullptr) {
        ::fcntl(::fileno(stream.get()), F_SETFD, FD_CLOEXEC);
    }
    return stream;
}

}  // namespace corvane
