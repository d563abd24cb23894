#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/power_control.h"

namespace corvane {

/// Where the guest's service manager, systemd, is found.
struct ServiceManager {
    /// Whether the guest was started by one and still has it. See sd_booted(3).
    bool (*runs)();
    /// The system's message bus, an address as D-Bus writes it. systemd and its fellows are on it.
    std::string busAddress;
    /// systemd's own socket, for root alone. It serves where there is no bus.
    std::string directAddress;
};

/// The one of this guest. Built without libsystemd, the agent knows of none: it never runs.
[[nodiscard]] ServiceManager thisGuestsServiceManager();

/// Asks for an orderly end of the guest's run, for `limit` at most. Nothing where no service
/// manager runs; otherwise whether it has been told and agreed. Any thread, several at once too.
[[nodiscard]] std::optional<bool> askServiceManager(const ServiceManager& manager,
                                                    PowerAction action,
                                                    std::chrono::milliseconds limit);

}  // namespace corvane
