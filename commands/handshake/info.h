#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-info": answers the agent's version and the commands that work in this guest, made afresh
/// on each call: those that need vsock are listed when a vsock socket can be made, the switch of
/// the remote login when its service is there. Main thread.
JsonValue handleGuestInfo();

}  // namespace corvane
