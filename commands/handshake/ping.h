#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-ping": answers an empty object. Main thread.
JsonValue handleGuestPing();

}  // namespace corvane
