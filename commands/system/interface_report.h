#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-network-get-interfaces": answers the interfaces that are up and have an IPv4 or IPv6
/// address, each with its hardware address and its addresses with their prefix lengths, in the
/// order of the platform's list. Whatever the arguments are, they do not matter. Main thread.
JsonValue handleGuestNetworkGetInterfaces(const JsonObject* arguments);

}  // namespace corvane
