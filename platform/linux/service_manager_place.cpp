#include <cstdlib>

#include <systemd/sd-daemon.h>

#include "platform/linux/service_manager.h"

namespace corvane {

ServiceManager thisGuestsServiceManager() {
    // The variable that every D-Bus program heeds.
    const char* busAddress = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return {[] { return sd_booted() > 0; },
            busAddress != nullptr ? busAddress : "unix:path=/run/dbus/system_bus_socket",
            "unix:path=/run/systemd/private"};
}

}  // namespace corvane
