#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-flush": hands what is in the buffer of a stream to the system. Main thread.
JsonValue handleGuestFileFlush(const JsonObject* arguments);

}  // namespace corvane
