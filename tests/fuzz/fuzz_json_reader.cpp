// The reader, given a text in pieces, against Boost.JSON's own parser, given it whole: they must
// agree on what is JSON and on what it says. The reader differs on purpose in this, and no more:
//
// - At the top it takes an object or an array alone.
// - Of a number it keeps the integer part modulo 2^64 where the reference keeps a double. So each
//   number of the text is worked out once more, in decimal and by hand.
// - A boolean is a number.
// - An object keeps all its members, in the order of the text. The last of a name counts; the
//   reference has only that one.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "core/json_reader.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace corvane {
namespace {

namespace json = boost::json;

JsonOutcome readInPieces(FuzzInput& input) {
    RequestLine line;
    for (std::string_view rest = input.text(); !rest.empty();) {
        line.push_back(InputSlice::copyOf(input.takePiece(rest)));
    }
    return readJson(std::move(line));
}

/// The numbers of a JSON text, in its order: what begins with a sign or digit outside of strings,
/// up to what can be in no number.
std::vector<std::string_view> numbersIn(std::string_view text) {
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

/// Goes through `value` in the order of its text and compares each number with the next of `texts`.
void compareNumbers(const JsonValue& value, std::span<const std::string_view>& texts) {
    if (const JsonArray* array = value.array()) {
        for (const JsonValue& element : *array) {
            compareNumbers(element, texts);
        }
    } else if (const JsonObject* object = value.object()) {
        for (const JsonMember& member : object->members()) {
            compareNumbers(member.value, texts);
        }
    } else if (value.number() != nullptr && !value.number()->isBoolean()) {
        check(!texts.empty(), "a number is one of the text");
        const PlainNumber plain(texts.front());
        texts = texts.subspan(1);
        const JsonNumber& number = *value.number();
        check(number.asUnsigned64() == plain.integerBits, "a number's integer part is the same");
        check(number.asBoolean() == !plain.isZero, "a number is zero or not");
        check(number.isNegative() == (plain.isNegative && plain.integerBits != 0),
              "a number is negative or not");
    }
}

/// As the text has been worked out: what a double can tell without loss.
bool agrees(const JsonNumber& ours, double reference) {
    constexpr double exactLimit = 9007199254740992.0;
    return std::isnan(reference) ||  // what the reference makes of 0e999
           std::abs(reference) >= exactLimit ||
           std::abs(static_cast<double>(ours.asSigned64()) - std::trunc(reference)) <= 1.0;
}

void compare(const JsonValue& ours, const json::value& reference);

void compareObjects(const JsonObject& ours, const json::object& reference) {
    for (const auto& member : reference) {
        const JsonValue* value = ours.find({member.key().data(), member.key().size()});
        check(value != nullptr, "a member is found by its name");
        compare(*value, member.value());
    }
    for (const JsonMember& member : ours.members()) {
        check(reference.contains(member.key), "a member's name is in the text");
    }
}

void compare(const JsonValue& ours, const json::value& reference) {
    switch (reference.kind()) {
        case json::kind::null:
            return check(ours.isNull(), "null is null");
        case json::kind::bool_:
            return check(ours.number() != nullptr && ours.number()->isBoolean() &&
                             ours.number()->asBoolean() == reference.get_bool(),
                         "booleans are the same");
        case json::kind::int64:
            return check(ours.number() != nullptr &&
                             ours.number()->asSigned64() == reference.get_int64() &&
                             ours.number()->isNegative() == (reference.get_int64() < 0),
                         "signed numbers are the same");
        case json::kind::uint64:
            return check(
                ours.number() != nullptr && ours.number()->asUnsigned64() == reference.get_uint64(),
                "unsigned numbers are the same");
        case json::kind::double_:
            return check(ours.number() != nullptr && !ours.number()->isBoolean() &&
                             agrees(*ours.number(), reference.get_double()),
                         "other numbers are near");
        case json::kind::string:
            return check(ours.string() != nullptr && *ours.string() == reference.get_string(),
                         "strings are the same");
        case json::kind::array: {
            const auto* array = ours.array();
            check(array != nullptr && array->size() == reference.get_array().size(),
                  "arrays are of one size");
            for (std::size_t i = 0; i < array->size(); ++i) {
                compare((*array)[i], reference.get_array()[i]);
            }
            return;
        }
        case json::kind::object:
            check(ours.object() != nullptr, "an object is an object");
            return compareObjects(*ours.object(), reference.get_object());
    }
}

void run(FuzzInput input) {
    json::error_code error;
    json::parse_options options;
    options.max_depth = jsonDepthLimit;
    const std::string text(input.text());
    const json::value reference = json::parse(text, error, {}, options);
    const bool valid = !error && reference.is_structured();

    const JsonOutcome outcome = readInPieces(input);
    check(std::holds_alternative<JsonValue>(outcome) == valid, "the verdict is the same");
    if (valid) {
        compare(std::get<JsonValue>(outcome), reference);
        const std::vector<std::string_view> numbers = numbersIn(text);
        std::span<const std::string_view> texts(numbers);
        compareNumbers(std::get<JsonValue>(outcome), texts);
        check(texts.empty(), "no number is missing");
    } else {
        check(!std::get<JsonError>(outcome).description.empty(), "an error has a description");
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run(corvane::FuzzInput({data, size}));
    return 0;
}
