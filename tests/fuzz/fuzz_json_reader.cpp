// The reader, given a text in pieces, against Boost.JSON's own parser, given it whole: they must
// agree on what is JSON and on what it says.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

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

/// A double has lost what ours keeps: whole numbers in its exact range may differ by the rounding
/// of the fraction, larger ones in anything.
bool agrees(const JsonNumber& ours, double reference) {
    if (std::isnan(reference)) {  // what the reference makes of 0e999
        return ours.asUnsigned64() == 0 && !ours.asBoolean();
    }
    constexpr double exactLimit = 9007199254740992.0;
    if (std::abs(reference) >= exactLimit) {
        return ours.asBoolean();
    }
    return std::abs(static_cast<double>(ours.asSigned64()) - std::trunc(reference)) <= 1.0 &&
           (ours.asBoolean() || reference == 0.0);
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
