#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-write": writes bytes, given in base64, at the position of a stream. They may stay in
/// its buffer until it is flushed, positioned or closed. Main thread, which waits as long as
/// writing does.
JsonValue handleGuestFileWrite(const JsonObject* arguments);

}  // namespace corvane
