#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_reader.h"
#include "core/json_value.h"
#include "core/pending_input.h"

namespace corvane {

/// What a pointer lends; a failed test where it lends nothing.
template <typename T>
const T& held(const T* lent) {
    if (lent == nullptr) {
        throw std::logic_error("the value is not there, or of another kind");
    }
    return *lent;
}

inline const JsonNumber& numberOf(const JsonValue& value) {
    return held(value.number());
}
inline const std::string& stringOf(const JsonValue& value) {
    return held(value.string());
}
inline const JsonArray& arrayOf(const JsonValue& value) {
    return held(value.array());
}
inline const JsonObject& objectOf(const JsonValue& value) {
    return held(value.object());
}
inline const JsonValue& memberOf(const JsonValue& value, std::string_view key) {
    return held(objectOf(value).find(key));
}

/// Reads `text` as a line that came in reads of `pieceSize` bytes. The line may hold line feeds.
inline JsonOutcome readInPieces(std::string_view text, std::size_t pieceSize) {
    RequestLine line;
    for (; !text.empty(); text.remove_prefix(std::min(pieceSize, text.size()))) {
        line.push_back(InputSlice::copyOf(text.substr(0, pieceSize)));
    }
    return readJson(std::move(line));
}

/// Reads `text` as a line that came in two reads, the first of `firstSize` bytes.
inline JsonOutcome readInTwo(std::string_view text, std::size_t firstSize) {
    RequestLine line;
    line.push_back(InputSlice::copyOf(text.substr(0, firstSize)));
    line.push_back(InputSlice::copyOf(text.substr(firstSize)));
    return readJson(std::move(line));
}

inline JsonOutcome readWhole(std::string_view text) {
    return readInPieces(text, text.size() + 1);
}

/// The value of `text`; a failed test and null where it is no JSON.
inline JsonValue valueOf(std::string_view text) {
    JsonOutcome outcome = readWhole(text);
    if (const auto* error = std::get_if<JsonError>(&outcome)) {
        ADD_FAILURE() << "not read: " << text.substr(0, 200) << ": " << error->description;
        return {};
    }
    return std::get<JsonValue>(std::move(outcome));
}

/// Whether two values are of the same kinds and contents all the way down.
inline bool sameValue(const JsonValue& left, const JsonValue& right) {
    if (const auto* number = left.number()) {
        const auto* other = right.number();
        return other != nullptr && number->asUnsigned64() == other->asUnsigned64() &&
               number->isBoolean() == other->isBoolean() &&
               number->isNegative() == other->isNegative() &&
               number->asBoolean() == other->asBoolean();
    }
    if (const auto* text = left.string()) {
        return right.string() != nullptr && *text == *right.string();
    }
    if (const auto* array = left.array()) {
        const auto* other = right.array();
        return other != nullptr &&
               std::equal(array->begin(), array->end(), other->begin(), other->end(), sameValue);
    }
    if (const auto* object = left.object()) {
        const auto sameMember = [](const JsonMember& one, const JsonMember& two) {
            return one.key == two.key && sameValue(one.value, two.value);
        };
        return right.object() != nullptr &&
               std::equal(object->members().begin(), object->members().end(),
                          held(right.object()).members().begin(),
                          held(right.object()).members().end(), sameMember);
    }
    return left.isNull() && right.isNull();
}

}  // namespace corvane
