#pragma once

#include <chrono>
#include <functional>

#include "platform/linux/service_manager.h"
#include "platform/power_control.h"

namespace corvane {

/// Power off and restart: through the service manager, in good order. A guest without one is ended
/// by the kernel at once, when its file systems are written.
class LinuxPowerControl final : public PowerControl {
 public:
    /// What a guest without a service manager is ended with: sync(2) and reboot(2).
    struct Kernel {
        std::function<void()> sync;
        std::function<int(int)> reboot;
    };

    /// How long the service manager may take to agree, being reached included. libvirt's default is
    /// to wait five seconds for the agent's answer.
    static constexpr std::chrono::milliseconds defaultLimit = std::chrono::seconds(5);

    LinuxPowerControl();
    LinuxPowerControl(ServiceManager manager, Kernel kernel, std::chrono::milliseconds limit);

    [[nodiscard]] bool perform(PowerAction action) override;

 private:
    const ServiceManager manager_;
    const Kernel kernel_;
    const std::chrono::milliseconds limit_;
};

}  // namespace corvane
