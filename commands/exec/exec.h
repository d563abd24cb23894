#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-exec": starts a program and answers its process id. Does not wait for its end, but a
/// second at most until it has started, and as long as it takes the program to read its input data
/// up to the last 64 KiB.
JsonValue handleGuestExec(const JsonObject* arguments);

}  // namespace corvane
