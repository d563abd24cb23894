#include "commands/exec/vsock_url.h"

#include <algorithm>
#include <limits>
#include <string>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

namespace corvane {

namespace {

namespace urls = boost::urls;

std::int32_t readContextId(std::string_view text) {
    using Limits = std::numeric_limits<std::int32_t>;
    constexpr std::int64_t outOfRange = std::int64_t{1} << 32;

    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::int64_t value = 0;
    for (const char character : text) {
        if (character < '0' || character > '9') {
            break;
        }
        value = std::min(value * 10 + (character - '0'), outOfRange);
    }
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(negative ? -value : value, Limits::min(), Limits::max()));
}

/// From the port's text, digits alone: the parser's own number is 0 for all ports above 65535,
/// and vsock's are 32 bits wide.
std::int32_t readPort(urls::string_view digits) {
    std::uint32_t value = 0;
    for (const char digit : digits) {
        value = value * 10 + static_cast<std::uint32_t>(digit - '0');
    }
    return static_cast<std::int32_t>(value);
}

/// The parser lets a path follow the port without a slash, as in "vsock://2:5000x", which the
/// grammar does not (RFC 3986, section 3.3).
bool isWellFormed(const urls::url_view& url) {
    return url.encoded_path().empty() || url.encoded_path().starts_with('/');
}

}  // namespace

std::optional<VsockTarget> parseVsockUrl(std::string_view text) {
    const auto url = urls::parse_uri({text.data(), text.size()});
    if (!url || !isWellFormed(*url) || url->scheme() != "vsock" || url->encoded_host().empty() ||
        url->port().empty()) {
        return std::nullopt;
    }
    return VsockTarget{readContextId(url->host()), readPort(url->port())};
}

}  // namespace corvane
