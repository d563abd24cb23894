#include "platform/linux/linux_platform.h"

#include "platform/linux/system_log_choice.h"

namespace corvane {

LinuxPlatform::LinuxPlatform()
    : systemLog_(makeSystemLog()), services_{systemLog_,          firmware_,
                                             serialDevices_,      hypervisor_,
                                             channelDevice_,      vsockSockets_,
                                             remoteLogin_,        accounts_,
                                             privateDirectory_,   terminals_,
                                             processInformation_, fileStreams_,
                                             networkInterfaces_,  powerControl_,
                                             hidEvents_,          clock_} {}

}  // namespace corvane
