#include "platform/linux/linux_power_control.h"

#include <sys/reboot.h>
#include <unistd.h>

#include <utility>

namespace corvane {

LinuxPowerControl::LinuxPowerControl()
    : LinuxPowerControl(thisGuestsServiceManager(), {::sync, ::reboot}, defaultLimit) {}

LinuxPowerControl::LinuxPowerControl(ServiceManager manager, Kernel kernel,
                                     std::chrono::milliseconds limit)
    : manager_(std::move(manager)), kernel_(std::move(kernel)), limit_(limit) {}

bool LinuxPowerControl::perform(PowerAction action) {
    // A service manager that refuses has its reasons, and data that nobody else would save.
    if (const std::optional<bool> agreed = askServiceManager(manager_, action, limit_)) {
        return *agreed;
    }
    kernel_.sync();
    return kernel_.reboot(action == PowerAction::powerOff ? RB_POWER_OFF : RB_AUTOBOOT) == 0;
}

}  // namespace corvane
