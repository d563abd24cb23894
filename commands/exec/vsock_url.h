#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane {

/// Where a program's streams are connected to. See vsock(7).
struct VsockTarget {
    std::int32_t contextId = 0;
    std::int32_t port = 0;  ///< ports above 2^31 - 1 are negative here: the same 32 bits
};

/// The target that "vsock://cid:port" names; nothing when `text` is not a URL (RFC 3986) with just
/// this scheme, in small letters, a host and a port. What else the URL has is ignored.
///
/// The context id is the number that the host, its escapes decoded, begins with, read as strtol(3)
/// would into 32 bits: "abc" is 0, what is out of range the nearest limit. The port wraps at 2^32.
/// Throws std::bad_alloc.
std::optional<VsockTarget> parseVsockUrl(std::string_view text);

}  // namespace corvane
