#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-read": reads up to "count" bytes at the position of a stream and answers them in
/// base64. Main thread, which waits as long as reading does.
JsonValue handleGuestFileRead(const JsonObject* arguments);

}  // namespace corvane
