// The running program writes through its own copy of the descriptor, and the two share one file
// offset. So the file is read with pread(2), which leaves the offset alone: an lseek(2) to the
// start and back would let a write of the program that comes in between land in the wrong place.
//
// The file is read piece by piece, and each piece is encoded while it is in the cache, straight
// into the text: a large output is never in memory as bytes.

#include "commands/exec/captured_output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <new>
#include <optional>
#include <span>
#include <string_view>

#include "core/base64.h"
#include "core/heap.h"
#include "core/message.h"

namespace corvane {

namespace {

/// A multiple of 3, so that the texts of the pieces join to the text of the whole.
constexpr std::size_t pieceSize = std::size_t{48} * 1024;

/// Fills `piece` from `offset` on and returns how much there was, less only at the end of the file.
/// Nothing on failure.
std::optional<std::size_t> readPiece(int descriptor, std::span<char> piece, std::uint64_t offset) {
    std::size_t filled = 0;
    while (filled < piece.size()) {
        const ssize_t count = ::pread(descriptor, piece.data() + filled, piece.size() - filled,
                                      static_cast<off_t>(offset + filled));
        if (count == 0) {
            break;
        }
        if (count > 0) {
            filled += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return filled;
}

/// Gives the file's content, up to `size` bytes from its first one on, to `take`, piece by piece.
/// False on failure.
template <typename Take>
bool readAllFromDescriptor(int descriptor, std::size_t size, Take take) {
    std::array<char, pieceSize> piece;
    for (std::size_t offset = 0; offset < size; offset += pieceSize) {
        const std::size_t wanted = std::min(pieceSize, size - offset);
        const auto got = readPiece(descriptor, {piece.data(), wanted}, offset);
        if (!got) {
            return false;
        }
        take(std::string_view(piece.data(), *got));
        if (*got < wanted) {
            break;  // the file has become shorter
        }
    }
    return true;
}

/// Throws std::bad_alloc.
std::string encodeFile(int descriptor, std::size_t size) {
    std::string text;
    text.reserve(base64Length(size));
    preferLargePages(text.data(), text.capacity());
    const bool read = readAllFromDescriptor(descriptor, size, [&](std::string_view piece) {
        const std::size_t end = text.size();
        text.resize(end + base64Length(piece.size()));
        encodeBase64(piece, text.data() + end);
    });
    if (!read) {
        text.clear();
    }
    return text;
}

}  // namespace

PlainText readCapturedOutput(int descriptor) {
    struct stat file {};
    if (::fstat(descriptor, &file) != 0) {
        return {};
    }
    // A program may write as fast as it is read here: what comes later is for the next poll.
    const auto size = static_cast<std::size_t>(file.st_size);
    try {
        if (memorySuffices(base64Length(size))) {
            return {encodeFile(descriptor, size)};
        }
    } catch (const std::bad_alloc&) {
        // Not at this size, whatever was said before.
    }
    logStatus(false, "Memory does not suffice for captured output of %zu bytes.\n", size);
    return {};
}

}  // namespace corvane
