#pragma once

#include <cstddef>
#include <string_view>

namespace corvane {

/// Printable ASCII that stands for itself in a JSON string: no quotation mark and no backslash.
/// DEL (0x7F) counts as printable, as in RFC 8259, section 7.
constexpr bool isPlain(char character) noexcept {
    const auto byte = static_cast<signed char>(character);  // from 0x80 on negative
    return byte >= 0x20 && byte != '"' && byte != '\\';
}

/// How many characters at the start of `text` are plain. Any thread.
std::size_t plainLength(std::string_view text) noexcept;

/// The same without the instructions that not every processor has.
std::size_t portablePlainLength(std::string_view text) noexcept;

}  // namespace corvane
