// The readers of the kernel's command line, against plain ones: words first, then what is in them.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/boot_arguments.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

/// Every quote opens or closes, and a blank ends a word unless it is within quotes.
std::vector<std::string> wordsOf(std::string_view commandLine) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false;
    for (const char character : commandLine) {
        quoted = quoted != (character == '"');
        const auto byte = static_cast<unsigned char>(character);
        if (!quoted && (std::isspace(byte) != 0 || byte == 0xA0)) {
            words.push_back(word);
            word.clear();
        } else {
            word += character;
        }
    }
    words.push_back(word);
    std::erase(words, "");
    return words;
}

struct PlainArgument {
    std::string name;
    std::optional<std::string> value;
};

/// One quote at the end goes where one at the beginning has gone.
void dropLastQuote(std::string& text) {
    if (text.ends_with('"')) {
        text.pop_back();
    }
}

PlainArgument divide(std::string word) {
    const bool wordQuoted = word.starts_with('"');
    word.erase(0, wordQuoted ? 1 : 0);
    const std::size_t equals = word.find('=', 1);
    PlainArgument argument{word.substr(0, equals), std::nullopt};
    if (equals != std::string::npos) {
        argument.value = word.substr(equals + 1);
    }
    std::string& last = argument.value ? *argument.value : argument.name;
    const bool valueQuoted = argument.value && last.starts_with('"');
    last.erase(0, valueQuoted ? 1 : 0);
    if (wordQuoted || valueQuoted) {
        dropLastQuote(last);
    }
    return argument;
}

std::optional<std::string> plainText(std::string_view commandLine, std::string_view name) {
    std::optional<std::string> found;
    for (const std::string& word : wordsOf(commandLine)) {
        const PlainArgument argument = divide(word);
        if (!argument.value && argument.name == "--") {
            return found;
        }
        if (argument.value && argument.name == name) {
            found = argument.value;
        }
    }
    return found;
}

std::optional<std::uint64_t> plainNumber(std::string_view text) {
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(isHexadecimal ? 2 : 0);
    const std::string_view digits = "0123456789abcdef";
    const std::size_t base = isHexadecimal ? 16 : 10;
    constexpr auto largest = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t value = 0;
    bool fits = true;
    for (const char character : text) {
        const auto lower = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
        const std::size_t digit = digits.substr(0, base).find(lower);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        fits = fits && value <= (largest - digit) / base;
        value = value * base + digit;
    }
    return text.empty() || !fits ? std::nullopt : std::optional(value);
}

void run(std::string_view input) {
    // Every name that is in the text, and two that may be.
    std::vector<std::string> names = {"a", "mirel-guest-agent-port"};
    for (const std::string& word : wordsOf(input)) {
        names.push_back(divide(word).name);
    }
    names.resize(std::min<std::size_t>(names.size(), 8));
    for (const std::string& name : names) {
        const auto text = bootArgumentText(input, name);
        check(text == plainText(input, name), "the argument is the same");
        if (text) {
            check(parseUnsigned(*text) == plainNumber(*text), "its number is the same");
        }
    }
    check(parseUnsigned(input) == plainNumber(input), "numbers are the same");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
