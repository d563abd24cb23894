#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// The value of the boot argument `name` in the kernel's command line: the last `name=value` word
/// before a lone `--`. Words are cut as the kernel cuts them: double quotes keep blanks together,
/// and those around a word or a value are not part of it.
std::optional<std::string> bootArgumentText(std::string_view commandLine, std::string_view name);

/// A whole text as an unsigned integer, decimal or hexadecimal after "0x"; nothing when it is
/// something else or does not fit in 64 bits.
std::optional<std::uint64_t> parseUnsigned(std::string_view text);

}  // namespace corvane
