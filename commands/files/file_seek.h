#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-seek": moves the position of a stream and answers the new one. Main thread.
JsonValue handleGuestFileSeek(const JsonObject* arguments);

}  // namespace corvane
