#pragma once

#include "core/json_value.h"

namespace corvane {

/// "mirel-guest-signal-pid": sends a signal to a process, or, for SIGWINCH (28) with a size, sets
/// the size of the terminal that is its standard input.
JsonValue handleGuestSignalPid(const JsonObject* arguments);

}  // namespace corvane
