// The reader, given a text in pieces, against Boost.JSON's own parser, given it whole: they must
// agree on what is JSON and on what it says. The reader differs on purpose in this, and no more:
//
// - At the top it takes an object or an array alone.
// - Of a number it keeps the integer part modulo 2^64 where the reference keeps a double. So each
//   number of the text is worked out once more, in decimal and by hand.
// - A boolean is a number.
// - An object keeps all its members, in the order of the text. The last of a name counts; the
//   reference has only that one.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/json_reader.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/plain_number.h"
#include "tests/fuzz/reference_json.h"

namespace corvane {
namespace {

JsonOutcome readInPieces(FuzzInput& input) {
    RequestLine line;
    for (std::string_view rest = input.text(); !rest.empty();) {
        line.push_back(InputSlice::copyOf(input.takePiece(rest)));
    }
    return readJson(std::move(line));
}

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

void run(FuzzInput input) {
    const auto reference = referenceReading(input.text());
    const JsonOutcome outcome = readInPieces(input);
    check(std::holds_alternative<JsonValue>(outcome) == reference.has_value(),
          "the verdict is the same");
    if (reference) {
        compare(std::get<JsonValue>(outcome), *reference);
        const std::vector<std::string_view> numbers = numbersIn(input.text());
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
