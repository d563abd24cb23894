#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// Base64 one character after the other, straight from RFC 4648 section 4: what the agent's is
// compared with.

inline constexpr std::string_view plainBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline std::string encodeSlowly(std::string_view bytes) {
    std::string text;
    unsigned bits = 0;
    unsigned count = 0;
    const auto addCharacter = [&] { text += plainBase64Alphabet[bits >> (count - 6) & 0x3FU]; };
    for (const char byte : bytes) {
        bits = (bits << 8U | static_cast<unsigned char>(byte)) & 0xFFFFU;
        for (count += 8; count >= 6; count -= 6) {
            addCharacter();
        }
    }
    if (count > 0) {
        bits <<= 6 - count;
        count = 6;
        addCharacter();
    }
    return text.append((4 - text.size() % 4) % 4, '=');
}

/// Collects bits and gives a byte for every eight. Nothing when `text` is not what encodeSlowly
/// makes of any bytes.
inline std::optional<std::string> decodeSlowly(std::string_view text) {
    const std::size_t size = text.size();
    for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i) {
        text.remove_suffix(1);
    }
    std::string bytes;
    unsigned bits = 0;
    unsigned count = 0;
    for (const char character : text) {
        const std::size_t value = plainBase64Alphabet.find(character);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        bits = bits << 6U | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count);
            bits &= (1U << count) - 1;
        }
    }
    const bool lengthIsRight = size % 4 == 0 && count < 6;
    return lengthIsRight && bits == 0 ? std::optional(bytes) : std::nullopt;
}

}  // namespace corvane
