#pragma once

#include <sys/ioctl.h>

#include <optional>

#include "core/json_value.h"

namespace corvane {

/// Reads a "mirel-window-size" value, an object of "x" and "y" (pixels), "rows" and "columns", into
/// `record`: the fields whose keys are present, each cut to 16 bits. See ioctl_tty(2), TIOCSWINSZ.
/// Returns nothing, or an error response, `record` untouched: the first of the four, in this order,
/// that is not a number. Writes what was wrong to standard error, too, under its own name. Any
/// thread.
std::optional<JsonValue> getWindowSize(const JsonValue& value, winsize& record);

}  // namespace corvane
