#pragma once

#include <string>
#include <vector>

#include "platform/linux/system_bus.h"

namespace corvane {

/// A unit of the SSH server that may be switched.
struct SshUnit {
    const char* name;  ///< static
    bool isSocket;
    bool isEnabled;  ///< systemd starts it, or listens for it, when the guest starts
};

/// The units that are there and may be switched, sockets first. Left out are those that somebody
/// has masked, and second names of others. `atMost` ends the search early.
[[nodiscard]] std::vector<SshUnit> findSshUnits(SystemBus& manager, std::size_t atMost = 4);

/// The one of `units` that is to run for the SSH server to be on; null when there is none. The
/// socket where that is what is in use, else the service.
[[nodiscard]] const SshUnit* unitToSwitchOn(SystemBus& manager, const std::vector<SshUnit>& units);

}  // namespace corvane
