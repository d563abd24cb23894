#include "platform/linux/linux_power_control.h"

#include <sys/reboot.h>
#include <unistd.h>

namespace corvane {

bool LinuxPowerControl::perform(PowerAction action) {
    ::sync();
    return ::reboot(action == PowerAction::powerOff ? RB_POWER_OFF : RB_AUTOBOOT) == 0;
}

}  // namespace corvane
