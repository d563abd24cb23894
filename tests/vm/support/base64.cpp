#include "tests/vm/support/base64.h"

#include <array>
#include <cstdint>
#include <stdexcept>

namespace corvane::vm {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t noValue = 255;

constexpr std::array<std::uint8_t, 256> values = [] {
    std::array<std::uint8_t, 256> made{};
    made.fill(noValue);
    for (std::size_t index = 0; index < alphabet.size(); ++index) {
        made[static_cast<std::uint8_t>(alphabet[index])] = static_cast<std::uint8_t>(index);
    }
    return made;
}();

}  // namespace

std::string encodeBase64(std::string_view bytes) {
    std::string encoded;
    encoded.reserve(bytes.size() / 3 * 4 + 4);
    std::uint32_t bits = 0;
    int held = 0;
    for (const char byte : bytes) {
        bits = (bits << 8) | static_cast<std::uint8_t>(byte);
        for (held += 8; held >= 6; held -= 6) {
            encoded.push_back(alphabet[(bits >> (held - 6)) & 63]);
        }
    }
    if (held > 0) {
        encoded.push_back(alphabet[(bits << (6 - held)) & 63]);
    }
    encoded.append((4 - encoded.size() % 4) % 4, '=');
    return encoded;
}

std::string decodeBase64(std::string_view encoded) {
    std::string_view digits = encoded;
    for (int padding = 0; padding < 2 && digits.ends_with('='); ++padding) {
        digits.remove_suffix(1);
    }
    std::string bytes;
    bytes.reserve(digits.size() / 4 * 3 + 3);
    std::uint32_t bits = 0;
    int held = 0;
    for (const char digit : digits) {
        const std::uint8_t value = values[static_cast<std::uint8_t>(digit)];
        if (value == noValue) {
            throw std::invalid_argument("no base64");
        }
        bits = (bits << 6) | value;
        held += 6;
        if (held >= 8) {
            held -= 8;
            bytes.push_back(static_cast<char>((bits >> held) & 255));
        }
    }
    if (encoded.size() % 4 != 0 || held >= 6 || (bits & ((1U << held) - 1)) != 0) {
        throw std::invalid_argument("base64 with a wrong end");
    }
    return bytes;
}

}  // namespace corvane::vm
