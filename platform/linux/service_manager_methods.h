#pragma once

#include "platform/linux/system_bus.h"

namespace corvane {

/// The name of systemd on the bus.
inline constexpr char serviceManagerName[] = "org.freedesktop.systemd1";

/// A method of systemd's manager object. See org.freedesktop.systemd1(5).
constexpr BusMethod serviceManagerMethod(const char* member) noexcept {
    return {serviceManagerName, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
            member};
}

/// Asks for a property of systemd's manager object. The answer is a variant.
[[nodiscard]] BusReply getManagerProperty(SystemBus& manager, const char* property);

/// Asks for a property that units of all types have.
[[nodiscard]] BusReply getUnitProperty(SystemBus& manager, const char* unit, const char* property);

}  // namespace corvane
