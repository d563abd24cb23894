#pragma once

// Boost.JSON's own parser, which builds values that it knows itself, and our reader's values beside
// them.

#include <cmath>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "core/json_reader.h"
#include "core/json_value.h"
#include "tests/fuzz/check.h"

namespace corvane {

/// What the parser makes of a text that our reader is to accept. Nothing when ours is to refuse it:
/// it is not JSON, or is neither object nor array, or nests too deep.
inline std::optional<boost::json::value> referenceReading(std::string_view text) {
    boost::json::error_code error;
    boost::json::parse_options options;
    options.max_depth = jsonDepthLimit;
    boost::json::value value = boost::json::parse({text.data(), text.size()}, error, {}, options);
    return !error && value.is_structured() ? std::optional(std::move(value)) : std::nullopt;
}

/// As the text has been worked out: what a double can tell without loss.
inline bool agrees(const JsonNumber& ours, double reference) {
    constexpr double exactLimit = 9007199254740992.0;
    return std::isnan(reference) ||  // what the reference makes of 0e999
           std::abs(reference) >= exactLimit ||
           std::abs(static_cast<double>(ours.asSigned64()) - std::trunc(reference)) <= 1.0;
}

inline void compare(const JsonValue& ours, const boost::json::value& reference);

inline void compareObjects(const JsonObject& ours, const boost::json::object& reference) {
    for (const auto& member : reference) {
        const JsonValue* value = ours.find({member.key().data(), member.key().size()});
        check(value != nullptr, "a member is found by its name");
        compare(*value, member.value());
    }
    for (const JsonMember& member : ours.members()) {
        check(reference.contains(member.key), "a member's name is in the text");
    }
}

inline void compare(const JsonValue& ours, const boost::json::value& reference) {
    switch (reference.kind()) {
        case boost::json::kind::null:
            return check(ours.isNull(), "null is null");
        case boost::json::kind::bool_:
            return check(ours.number() != nullptr && ours.number()->isBoolean() &&
                             ours.number()->asBoolean() == reference.get_bool(),
                         "booleans are the same");
        case boost::json::kind::int64:
            return check(ours.number() != nullptr &&
                             ours.number()->asSigned64() == reference.get_int64() &&
                             ours.number()->isNegative() == (reference.get_int64() < 0),
                         "signed numbers are the same");
        case boost::json::kind::uint64:
            return check(
                ours.number() != nullptr && ours.number()->asUnsigned64() == reference.get_uint64(),
                "unsigned numbers are the same");
        case boost::json::kind::double_:
            return check(ours.number() != nullptr && !ours.number()->isBoolean() &&
                             agrees(*ours.number(), reference.get_double()),
                         "other numbers are near");
        case boost::json::kind::string:
            return check(ours.string() != nullptr && *ours.string() == reference.get_string(),
                         "strings are the same");
        case boost::json::kind::array: {
            const auto* array = ours.array();
            check(array != nullptr && array->size() == reference.get_array().size(),
                  "arrays are of one size");
            for (std::size_t i = 0; i < array->size(); ++i) {
                compare((*array)[i], reference.get_array()[i]);
            }
            return;
        }
        case boost::json::kind::object:
            check(ours.object() != nullptr, "an object is an object");
            return compareObjects(*ours.object(), reference.get_object());
    }
}

}  // namespace corvane
