#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace corvane {

/// What was read from a stream.
struct EncodedBytes {
    std::string text;         ///< in base64
    std::uint64_t count = 0;  ///< how many bytes the text stands for
    int error = 0;  ///< errno as the last read left it, 0 when that had no reason to set it
};

/// Reads as one fread(3) of `count` bytes does: until there are so many, or the stream ends or
/// fails, which its indicators tell. `count` may be any number: memory is used for what there is to
/// read. What was written before is written out first, and nothing is read when that fails, which
/// sets the error indicator.
///
/// Where the end was met before and there is more now (a FIFO with a new writer), less may be read
/// than by one call, and the rest by the next.
///
/// Throws std::bad_alloc when memory does not suffice for the text. The position of a stream that
/// has one is then as it was before.
EncodedBytes readEncoded(std::FILE* stream, std::uint64_t count);

/// Gives back what was read and cannot be answered. A stream without a position has lost it.
void unread(std::FILE* stream, std::uint64_t count) noexcept;

}  // namespace corvane
