// fopen(3) as it is leaves three things to wish for in a service that runs as root:
//
// - Its descriptors are inherited. The letter e of the mode mends that from the start.
// - A session leader without a controlling terminal, as every service is, gets one from any
//   terminal that it opens, and is ended when that terminal hangs up. There is no letter for
//   O_NOCTTY, so that a terminal is opened as a descriptor first.
// - The letter m maps the file into memory: whoever shortens it then ends the reader with SIGBUS.
//   Nothing but speed depends on the letter, and it is not passed on.

#include "platform/linux/linux_file_streams.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "core/descriptor_guard.h"

namespace corvane {

namespace {

/// glibc looks at no more of a mode than this, and at what follows a comma in a way of its own.
constexpr std::size_t letterCount = 7;

std::string_view lettersOf(std::string_view mode) {
    return mode.substr(0, std::min(mode.find(','), letterCount));
}

bool hasLetter(std::string_view mode, char letter) {
    return lettersOf(mode).find(letter) != std::string_view::npos;
}

std::string withoutMapping(std::string mode) {
    const auto letters = static_cast<std::ptrdiff_t>(lettersOf(mode).size());
    std::replace(mode.begin(), mode.begin() + letters, 'm', 'b');  // which means nothing here
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

OwnedStream openCharacterDevice(const std::string& path, const std::string& mode) {
    constexpr mode_t everybody = 0666;  // less the umask, as fopen(3) makes a file
    DescriptorGuard device(::open(path.c_str(), openFlags(mode), everybody));
    if (device.empty()) {
        return nullptr;
    }
    OwnedStream stream(::fdopen(device.borrow(), mode.c_str()));
    if (stream != nullptr) {
        static_cast<void>(device.release());
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
