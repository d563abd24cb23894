#include "commands/system/prefix_length.h"

#include <algorithm>
#include <bit>

namespace corvane {

namespace {

constexpr std::uint8_t fullByte = 0xFF;
constexpr std::uint8_t examinedBits = 0xFE;

}  // namespace

unsigned ipv4PrefixLength(std::span<const std::uint8_t, 4> mask) noexcept {
    unsigned length = 0;
    for (const std::uint8_t byte : mask) {
        length += static_cast<unsigned>(std::countl_one(byte));
        if (byte != fullByte) {
            break;
        }
    }
    return length;
}

unsigned ipv6PrefixLength(std::span<const std::uint8_t, 16> mask) noexcept {
    const auto partial = std::ranges::find_if(mask, [](auto byte) { return byte != fullByte; });
    const auto fullBytes = static_cast<unsigned>(partial - mask.begin());
    if (partial == mask.end()) {
        return fullBytes * 8;
    }
    const auto bits = static_cast<std::uint8_t>(*partial & examinedBits);
    const auto leading = static_cast<unsigned>(std::countl_one(bits));
    const bool hasBitsAfterZero = static_cast<std::uint8_t>(bits << leading) != 0;
    const bool hasBytesAfter = std::any_of(partial + 1, mask.end(), [](auto b) { return b != 0; });
    return hasBitsAfterZero || hasBytesAfter ? 0 : fullBytes * 8 + leading;
}

}  // namespace corvane
