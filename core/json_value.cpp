#include "core/json_value.h"

#include <algorithm>
#include <utility>

namespace corvane {

namespace {

/// Exponents are held within this bound: far above the length of any text, far below overflow.
constexpr std::int64_t exponentBound = std::int64_t{1} << 59;

bool isDigit(char character) noexcept {
    return character >= '0' && character <= '9';
}

/// Cuts the digits off the front of `text`.
std::string_view takeDigits(std::string_view& text) noexcept {
    const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
    const auto digits = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    text.remove_prefix(digits.size());
    return digits;
}

bool takeCharacter(std::string_view& text, char wanted) noexcept {
    if (!text.starts_with(wanted)) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

std::int64_t takeExponent(std::string_view& text) noexcept {
    if (!takeCharacter(text, 'e') && !takeCharacter(text, 'E')) {
        return 0;
    }
    const bool negative = takeCharacter(text, '-');
    if (!negative) {
        takeCharacter(text, '+');
    }
    std::int64_t exponent = 0;
    for (const char digit : takeDigits(text)) {
        exponent = std::min(exponent * 10 + (digit - '0'), exponentBound);
    }
    return negative ? -exponent : exponent;
}

std::uint64_t appendDigits(std::uint64_t value, std::string_view digits) noexcept {
    for (const char digit : digits) {
        value = value * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    return value;
}

bool anyNonZero(std::string_view digits) noexcept {
    return digits.find_first_not_of('0') != std::string_view::npos;
}

/// The product modulo 2^64. From 10^64 on, which 2^64 divides, it is 0.
std::uint64_t timesPowerOfTen(std::uint64_t value, std::int64_t exponent) noexcept {
    if (exponent >= 64) {
        return 0;
    }
    for (; exponent > 0; --exponent) {
        value *= 10;
    }
    return value;
}

}  // namespace

JsonNumber JsonNumber::fromText(std::string_view text) noexcept {
    const bool negative = takeCharacter(text, '-');
    const std::string_view whole = takeDigits(text);
    const std::string_view fraction =
        takeCharacter(text, '.') ? takeDigits(text) : std::string_view();
    const std::int64_t exponent = takeExponent(text);

    // The exponent moves the decimal point: so many of the digits stand before it in the end.
    const auto digitCount = static_cast<std::int64_t>(whole.size() + fraction.size());
    const std::int64_t integerDigits = static_cast<std::int64_t>(whole.size()) + exponent;
    const auto used =
        static_cast<std::size_t>(std::clamp(integerDigits, std::int64_t{0}, digitCount));

    std::uint64_t bits = appendDigits(0, whole.substr(0, used));
    if (used > whole.size()) {
        bits = appendDigits(bits, fraction.substr(0, used - whole.size()));
    }
    bits = timesPowerOfTen(bits, integerDigits - static_cast<std::int64_t>(used));

    const Form form = negative && bits != 0 ? Form::negativeInteger : Form::integer;
    return {negative ? 0 - bits : bits, form, anyNonZero(whole) || anyNonZero(fraction)};
}

const JsonValue* JsonObject::find(std::string_view key) const noexcept {
    const auto found = std::find_if(members_.rbegin(), members_.rend(),
                                    [key](const JsonMember& member) { return member.key == key; });
    return found == members_.rend() ? nullptr : &found->value;
}

JsonValue* JsonObject::find(std::string_view key) noexcept {
    return const_cast<JsonValue*>(std::as_const(*this).find(key));
}

void JsonObject::add(std::string key, JsonValue value) {
    members_.push_back({std::move(key), std::move(value)});
}

}  // namespace corvane
