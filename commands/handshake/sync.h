#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-sync": answers "id" as an unsigned 64-bit number, and takes back a delimiter that is
/// still to be sent. Main thread.
JsonValue handleGuestSync(const JsonObject* arguments);

/// "guest-sync-delimited": the same, with the byte 0xFF before the answer.
JsonValue handleGuestSyncDelimited(const JsonObject* arguments);

}  // namespace corvane
