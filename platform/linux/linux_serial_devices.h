#pragma once

#include <sys/types.h>

#include <string>

#include "platform/serial_devices.h"

namespace corvane {

/// The virtio ports and ttys of /sys/class. A device's dial-in path is /dev/NAME, but for the one
/// that the agent's link in /dev leads to: it goes by the link. Drivers have their own names,
/// but for Linux's virtio_console, which is the class "MirelVirtIOConsole".
class LinuxSerialDevices final : public SerialDevices {
 public:
    /// `agentPath` is the well-known path that a udev rule makes a link to the agent's device.
    explicit LinuxSerialDevices(std::string sysRoot = "/sys", std::string deviceRoot = "/dev",
                                std::string agentPath = "/dev/tty.org.qemu.guest_agent.0");

    std::optional<std::vector<SerialDevice>> list() override;

 private:
    std::string sysRoot_;
    std::string deviceRoot_;
    std::string agentPath_;
};

}  // namespace corvane
