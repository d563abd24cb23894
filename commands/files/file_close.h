#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-close": closes a stream and takes it out of the table, whether closing it succeeded
/// or not. Main thread.
JsonValue handleGuestFileClose(const JsonObject* arguments);

}  // namespace corvane
