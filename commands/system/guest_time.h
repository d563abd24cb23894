#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-set-time": sets the guest's wall clock to "time", nanoseconds since 1970-01-01 00:00:00
/// UTC modulo 2^64. Absent arguments are the same as an absent "time". Main thread.
JsonValue handleGuestSetTime(const JsonObject* arguments);

/// "guest-get-time": answers the guest's wall clock, in the same unit, under "time". Main thread.
JsonValue handleGuestGetTime();

}  // namespace corvane
