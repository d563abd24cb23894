#include "platform/linux/service_manager_methods.h"

#include <cstdlib>
#include <memory>

namespace corvane {
namespace {

BusReply getProperty(SystemBus& manager, const char* object, const char* interface,
                     const char* property) {
    return manager.call({serviceManagerName, object, "org.freedesktop.DBus.Properties", "Get"},
                        "ss", interface, property);
}

}  // namespace

BusReply getManagerProperty(SystemBus& manager, const char* property) {
    return getProperty(manager, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                       property);
}

BusReply getUnitProperty(SystemBus& manager, const char* unit, const char* property) {
    char* encoded = nullptr;
    if (sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit, &encoded) < 0) {
        return {};
    }
    const std::unique_ptr<char, Releaser<std::free>> path(encoded);
    return getProperty(manager, path.get(), "org.freedesktop.systemd1.Unit", property);
}

}  // namespace corvane
