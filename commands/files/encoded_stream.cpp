// The stream is read piece by piece, and each piece is encoded while it is in the cache, straight
// into the text: what is read is never in memory as bytes.

#include "commands/files/encoded_stream.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <stdio_ext.h>
#include <string_view>

#include "core/base64.h"
#include "core/heap.h"

namespace corvane {

namespace {

/// A multiple of 3, so that the texts of the pieces join to the text of the whole, and of a page,
/// so that the C library reads all of it into the piece and not by way of its own buffer.
constexpr std::size_t pieceSize = std::size_t{96} * 1024;

/// How many bytes there will be at most, as far as can be told: only a regular file has a size.
std::uint64_t expectedCount(std::FILE* stream, std::uint64_t count) {
    struct stat file {};
    const bool known = ::fstat(::fileno(stream), &file) == 0 && S_ISREG(file.st_mode);
    return known ? std::min(count, static_cast<std::uint64_t>(file.st_size)) : 0;
}

/// What was written and is still in the stream's buffer is written to the file first: the C library
/// drops it when a large read follows without a flush, and nobody would be told.
bool writePending(std::FILE* stream) noexcept {
    return ::__fpending(stream) == 0 || std::fflush(stream) == 0;
}

/// A text that grows as long as memory suffices.
class GrowingText {
 public:
    /// Makes room for what is expected. To be wrong about it costs next to nothing: room that is
    /// not filled is no memory.
    explicit GrowingText(std::uint64_t expectedBytes) {
        const std::uint64_t size = base64Length(expectedBytes);
        if (memorySuffices(size)) {
            reserve(size);
        }
    }

    void append(std::string_view bytes) {
        const std::size_t end = text_.size();
        const std::size_t needed = end + base64Length(bytes.size());
        if (needed > text_.capacity()) {
            const std::size_t wanted = std::max(needed, 2 * text_.capacity());
            if (!memorySuffices(wanted)) {  // the old room stays until the text has moved
                throw std::bad_alloc();
            }
            reserve(wanted);
        }
        text_.resize(needed);
        encodeBase64(bytes, text_.data() + end);
    }

    std::string take() noexcept { return std::move(text_); }

 private:
    void reserve(std::size_t size) {
        text_.reserve(size);
        preferLargePages(text_.data() + text_.size(), text_.capacity() - text_.size());
    }

    std::string text_;
};

/// Fills the piece; less only at the end of the stream, or when reading fails.
std::size_t readPiece(std::FILE* stream, std::array<char, pieceSize>& piece, std::uint64_t wanted,
                      int& error) {
    errno = 0;
    const std::size_t count =
        std::fread(piece.data(), 1, std::min<std::uint64_t>(wanted, pieceSize), stream);
    error = errno;
    return count;
}

}  // namespace

void unread(std::FILE* stream, std::uint64_t count) noexcept {
    if (count > 0) {
        std::fseek(stream, -static_cast<long>(count), SEEK_CUR);
    }
}

EncodedBytes readEncoded(std::FILE* stream, std::uint64_t count) {
    EncodedBytes read;
    if (count > 0 && !writePending(stream)) {
        read.error = errno;
        return read;
    }
    std::array<char, pieceSize> piece;
    try {
        GrowingText text(expectedCount(stream, count));
        bool more = true;
        while (more && read.count < count) {
            const std::uint64_t wanted = std::min<std::uint64_t>(count - read.count, pieceSize);
            const std::size_t got = readPiece(stream, piece, wanted, read.error);
            read.count += got;
            text.append({piece.data(), got});
            more = got == wanted;
        }
        read.text = text.take();
    } catch (const std::bad_alloc&) {
        unread(stream, read.count);
        throw;
    }
    return read;
}

}  // namespace corvane
