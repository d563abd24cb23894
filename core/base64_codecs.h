#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace corvane {

// What base64.cpp is made of, apart from it for tests and benchmarks.

inline constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// What stands in base64Values for a byte that is not in the alphabet: more than any value.
inline constexpr std::uint8_t notInBase64 = 0xFF;

/// The value of each character of the alphabet, by its code.
inline constexpr std::array<std::uint8_t, 256> base64Values = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(notInBase64);
    std::uint8_t value = 0;
    for (const char character : base64Alphabet) {
        values[static_cast<unsigned char>(character)] = value++;
    }
    return values;
}();

/// A way to do the bulk of the work: whole groups of three bytes or four characters, none padded.
/// It may leave groups over, as many as it likes to; only the portable one leaves none.
struct Base64Codec {
    const char* name;

    /// Encodes groups from the front of `bytes` to `text`, which has room for all of them. Returns
    /// the number of bytes that are done.
    std::size_t (*encodeGroups)(std::string_view bytes, char* text) noexcept;

    /// Decodes groups from the front of `text` to `bytes`, which has room for all of them, up to
    /// one with a character outside the alphabet. Returns the number of characters that are done.
    std::size_t (*decodeGroups)(std::string_view text, char* bytes) noexcept;
};

/// The one that runs on every processor.
extern const Base64Codec portableBase64Codec;

/// Those that this processor has instructions for, the fastest first.
std::span<const Base64Codec> vectorBase64Codecs() noexcept;

const Base64Codec& fastestBase64Codec() noexcept;

/// encodeBase64 by means of `codec`.
void encodeBase64With(const Base64Codec& codec, std::string_view bytes, char* text) noexcept;

/// How many bytes a text decodes to if it is valid. Its length must be a multiple of 4.
std::size_t decodedBase64Length(std::string_view text) noexcept;

/// Decodes `text` to the decodedBase64Length(text) bytes from `bytes` on. Returns whether it is
/// valid; if not, what `bytes` holds is unspecified. Its length must be a multiple of 4.
bool decodeBase64With(const Base64Codec& codec, std::string_view text, char* bytes) noexcept;

}  // namespace corvane
