#pragma once

#include "platform/linux/linux_accounts.h"
#include "platform/linux/linux_channel_device.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_file_streams.h"
#include "platform/linux/linux_firmware.h"
#include "platform/linux/linux_hid_events.h"
#include "platform/linux/linux_hypervisor.h"
#include "platform/linux/linux_network_interfaces.h"
#include "platform/linux/linux_power_control.h"
#include "platform/linux/linux_private_directory.h"
#include "platform/linux/linux_process_information.h"
#include "platform/linux/linux_remote_login.h"
#include "platform/linux/linux_serial_devices.h"
#include "platform/linux/linux_terminals.h"
#include "platform/linux/linux_vsock_sockets.h"
#include "platform/linux/queued_log.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace corvane {

/// All of the agent's services on Linux. Owns them.
class LinuxPlatform {
 public:
    LinuxPlatform();
    LinuxPlatform(const LinuxPlatform&) = delete;
    LinuxPlatform& operator=(const LinuxPlatform&) = delete;

    /// Lends them, for as long as this object lives.
    [[nodiscard]] Platform& services() noexcept { return services_; }

    /// For the end of the process: lets the log take what it has been told.
    void finishLog() noexcept { systemLog_.finish(); }

 private:
    QueuedLog systemLog_;
    LinuxFirmware firmware_;
    LinuxSerialDevices serialDevices_;
    LinuxHypervisor hypervisor_;
    LinuxChannelDevice channelDevice_;
    LinuxVsockSockets vsockSockets_;
    LinuxRemoteLogin remoteLogin_;
    LinuxAccounts accounts_;
    LinuxPrivateDirectory privateDirectory_;
    LinuxTerminals terminals_;
    LinuxProcessInformation processInformation_;
    LinuxFileStreams fileStreams_;
    LinuxNetworkInterfaces networkInterfaces_;
    LinuxPowerControl powerControl_;
    LinuxHidEvents hidEvents_;
    LinuxClock clock_;
    Platform services_;
};

}  // namespace corvane
