#pragma once

#include "core/json_value.h"

namespace corvane {

/// "mirel-guest-set-remote-login": switches the guest's SSH server on where "enabled" is true, off
/// where it is false or absent. A success says that the agent was allowed to; what came of the
/// switch is not known. Main thread, which waits for the administration service.
JsonValue handleGuestSetRemoteLogin(const JsonObject* arguments);

}  // namespace corvane
