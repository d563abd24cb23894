#include "platform/linux/boot_arguments.h"

#include <charconv>

namespace corvane {
namespace {

/// As the kernel has it, whose characters are those of Latin-1: a no-break space is one.
bool isBlank(char byte) noexcept {
    return byte == ' ' || byte == '\xA0' || (byte >= '\t' && byte <= '\r');
}

struct Argument {
    std::string_view name;
    std::optional<std::string_view> value;
};

/// Takes the next word off `rest`; nothing at the end. The steps are those of the kernel's
/// next_arg() in lib/cmdline.c, so that a word means here what it means there.
std::optional<Argument> takeArgument(std::string_view& rest) {
    while (!rest.empty() && isBlank(rest.front())) {
        rest.remove_prefix(1);
    }
    if (rest.empty()) {
        return std::nullopt;
    }
    const bool wordQuoted = rest.front() == '"';
    if (wordQuoted) {
        rest.remove_prefix(1);
    }
    bool inQuotes = wordQuoted;
    std::size_t end = 0;
    std::size_t equals = 0;  // at 0 it belongs to the name
    for (; end < rest.size() && (inQuotes || !isBlank(rest[end])); ++end) {
        if (equals == 0 && rest[end] == '=') {
            equals = end;
        }
        if (rest[end] == '"') {
            inQuotes = !inQuotes;
        }
    }
    std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end);

    const bool valueQuoted = equals != 0 && equals + 1 < word.size() && word[equals + 1] == '"';
    // A lone quote that opens the value does not also close it.
    const std::size_t opening = valueQuoted ? equals + 2 : 0;
    if ((wordQuoted || valueQuoted) && word.size() > opening && word.back() == '"') {
        word.remove_suffix(1);
    }
    if (equals == 0) {
        return Argument{word, std::nullopt};
    }
    return Argument{word.substr(0, equals), word.substr(valueQuoted ? equals + 2 : equals + 1)};
}

}  // namespace

std::optional<std::string> bootArgumentText(std::string_view commandLine, std::string_view name) {
    std::optional<std::string> found;
    while (const auto argument = takeArgument(commandLine)) {
        if (!argument->value && argument->name == "--") {
            break;  // the rest is for init
        }
        if (argument->value && argument->name == name) {
            found = *argument->value;
        }
    }
    return found;
}

std::optional<std::uint64_t> parseUnsigned(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace corvane
