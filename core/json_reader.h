#pragma once

#include <cstddef>
#include <string>
#include <variant>

#include "core/json_value.h"
#include "core/pending_input.h"

namespace corvane {

/// How deep arrays and objects may nest. Deeper text is an error, so that the stack that the
/// recursive parser needs is bounded (docs/linux-port.md gives the figure).
inline constexpr std::size_t jsonDepthLimit = 512;

/// Why a text is not JSON, in words for the log.
struct JsonError {
    std::string description;
};

using JsonOutcome = std::variant<JsonValue, JsonError>;

/// Reads one JSON text (RFC 8259) from the pieces of `line`, without joining them; each piece is
/// released once it has been read.
///
/// Strict: an object or an array at the top, UTF-8 without errors, no lone surrogates, no comments,
/// no trailing commas, nothing behind the value but white space. Of several members with one name
/// the last counts. Takes time and memory in proportion to the line's length.
/// Throws std::bad_alloc when memory runs out.
JsonOutcome readJson(RequestLine line);

}  // namespace corvane
