#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

/// The numbers of a JSON text, in its order: what begins with a sign or digit outside of strings,
/// up to what can be in no number. The text must be valid.
inline std::vector<std::string_view> numbersIn(std::string_view text) {
    std::vector<std::string_view> numbers;
    for (std::size_t place = 0; place < text.size(); ++place) {
        if (text[place] == '"') {
            while (text[++place] != '"') {
                place += text[place] == '\\' ? 1U : 0U;
            }
        } else if (text[place] == '-' || (text[place] >= '0' && text[place] <= '9')) {
            const std::string_view number =
                text.substr(place, text.find_first_not_of("+-.0123456789Ee", place) - place);
            numbers.push_back(number);
            place += number.size() - 1;
        }
    }
    return numbers;
}

/// A number's text with the point moved by its exponent, and all that stands before the point then.
struct PlainNumber {
    explicit PlainNumber(std::string_view text) {
        const std::size_t mark = std::min(text.find_first_of("eE"), text.size());
        const std::string exponentText(text.substr(std::min(mark + 1, text.size())));
        // Far beyond what digits there are, the figure does not matter any more.
        const long limit = 10'000;
        const long exponent =
            std::clamp(std::strtol(exponentText.c_str(), nullptr, 10), -limit, limit);

        std::string_view digits = text.substr(0, mark);
        isNegative = digits.starts_with('-');
        digits.remove_prefix(isNegative ? 1 : 0);
        const std::size_t point = std::min(digits.find('.'), digits.size());
        std::string all(digits.substr(0, point));
        all += digits.substr(std::min(point + 1, digits.size()));
        isZero = all.find_first_not_of('0') == std::string::npos;

        const long end = static_cast<long>(point) + exponent;
        all.resize(end < 0 ? 0 : static_cast<std::size_t>(end), '0');
        for (const char digit : all) {
            integerBits = integerBits * 10 + static_cast<unsigned>(digit - '0');
        }
        integerBits = isNegative ? 0 - integerBits : integerBits;
    }

    std::uint64_t integerBits = 0;
    bool isNegative = false;
    bool isZero = false;
};

}  // namespace corvane
