#pragma once

#include <string>
#include <string_view>

#include "core/json_value.h"

namespace corvane {

/// The compact JSON text of `value`, between `prefix` and `suffix`, made in one buffer that is
/// sized beforehand, so that a long string is copied once.
///
/// The text is valid JSON whatever strings hold: bytes that are not UTF-8 become U+FFFD. Members
/// stand in the order in which they were added.
/// Throws std::bad_alloc.
std::string writeJson(const JsonValue& value, std::string_view prefix = {},
                      std::string_view suffix = {});

/// Takes JSON text piece by piece.
class JsonTextSink {
 public:
    virtual ~JsonTextSink() = default;
    virtual void append(std::string_view text) = 0;
};

/// Gives the same text to `sink` in pieces, without making it whole.
void writeJson(const JsonValue& value, JsonTextSink& sink);

}  // namespace corvane
