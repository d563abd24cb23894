#pragma once

#include <optional>

#include "core/json_value.h"
#include "platform/terminals.h"

namespace corvane {

/// Reads a "mirel-termios" value for `handler`, whose name stands before what is written to
/// standard error: an object of the flag words "iflag", "oflag", "cflag" and "lflag", the speeds
/// "ispeed" and "ospeed", all wrapped to 64 bits and 0 where absent, and "cc", an array of
/// `controlCharacterCount` numbers, each cut to 8 bits, so that -1 is 0xFF, which disables one.
/// Returns nothing, or the error response of the first check that failed; `settings` is of no use
/// then. Any thread.
std::optional<JsonValue> getTerminalSettings(const char* handler, const JsonValue& value,
                                             TerminalSettings& settings);

}  // namespace corvane
