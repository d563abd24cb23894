#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// Base64 in the standard alphabet, RFC 4648 section 4: padding is written, line breaks are not.
// All functions may be called from any thread.

/// How many characters `byteCount` bytes make. It must not exceed three quarters of SIZE_MAX.
constexpr std::size_t base64Length(std::size_t byteCount) noexcept {
    return byteCount / 3 * 4 + (byteCount % 3 == 0 ? 0 : 4);
}

/// Writes the base64Length(bytes.size()) characters to `text`, and no NUL. What does not arrive at
/// once can be encoded in pieces, one behind the other, if all but the last are multiples of 3.
void encodeBase64(std::string_view bytes, char* text) noexcept;

/// Throws std::bad_alloc.
std::string encodeBase64(std::string_view bytes);

/// The bytes that `text` stands for; none if it is not exactly what encodeBase64 makes of them. So
/// it has no character outside the alphabet, line breaks included, has its padding, at its end
/// only, and zeroes in the bits before the padding (RFC 4648 section 3.5).
/// Throws std::bad_alloc.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace corvane
