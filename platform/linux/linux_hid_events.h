#pragma once

#include <string>

#include "platform/hid_events.h"
#include "platform/linux/input_description.h"
#include "platform/linux/input_devices.h"

namespace corvane {

/// Keys of HID devices, and the machine's own power button, over evdev. Follows devices that come
/// and go; waits without using the processor.
class LinuxHidEvents final : public HidEvents {
 public:
    /// The devices are those of `deviceRoot`/input. `deliver` comes back with true when
    /// `stopDescriptor`, which is borrowed, becomes readable; never, when it is -1.
    explicit LinuxHidEvents(
        std::string deviceRoot = "/dev",
        InputDevices::Describe describe = [](int device) { return describeInputDevice(device); },
        int stopDescriptor = -1);

    [[nodiscard]] bool deliver(std::uint32_t primaryUsagePage, const Handler& handler) override;

 private:
    std::string deviceRoot_;
    InputDevices::Describe describe_;
    int stopDescriptor_;
};

}  // namespace corvane
