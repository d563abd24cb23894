#pragma once

#include <cstdint>
#include <span>

namespace corvane {

/// The number of leading one bits of an IPv4 netmask in network order, 0 to 32. What comes after
/// the first zero bit is not looked at: 255.0.255.0 gives 8.
unsigned ipv4PrefixLength(std::span<const std::uint8_t, 4> mask) noexcept;

/// The prefix length of an IPv6 netmask in network order, 0 to 128; 0 for a mask with a one bit
/// after a zero bit. The last bit of the first byte that is not full is never looked at.
unsigned ipv6PrefixLength(std::span<const std::uint8_t, 16> mask) noexcept;

}  // namespace corvane
