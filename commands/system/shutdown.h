#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-shutdown": powers the guest off, or restarts it where "mode" is "reboot". Answers when
/// the guest's power control has taken the order; arguments may be absent. Main thread.
JsonValue handleGuestShutdown(const JsonObject* arguments);

}  // namespace corvane
