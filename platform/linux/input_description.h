#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/system_result.h"
#include "platform/linux/key_report.h"

namespace corvane {

/// What an input device says about itself, and the kernel about it.
struct InputDescription {
    std::uint16_t bus = 0;      ///< BUS_... of linux/input.h
    std::string phys;           ///< its place in the machine: "LNXPWRBN/button/input0"
    bool hasKeys = false;       ///< EV_KEY
    bool hasPowerKey = false;   ///< KEY_POWER among them
    bool hasScanCodes = false;  ///< MSC_SCAN
    bool isHid = false;         ///< its parent is a device of the kernel's HID bus
    /// What a HID device says that it reports. Device Class Definition for HID 1.11, section 6.2.2.
    std::string reportDescriptor;
};

/// Asks an open input device. Fails with the errno of the ioctl(2) for a descriptor that is none or
/// whose device is gone, and with that of what sysfs did not say. `sysRoot` is the mount point of
/// sysfs.
SystemResult<InputDescription> describeInputDevice(int descriptor,
                                                   const std::string& sysRoot = "/sys");

/// Adds what sysfs knows of the HID device that an open input device belongs to, if there is one.
/// Returns 0, or the errno value of what could not be read.
[[nodiscard]] int addHidParent(InputDescription& description, int descriptor,
                               const std::string& sysRoot);

/// How to read the keys of a device for the events of `usagePage`; `none` when it can have none.
KeySource keySourceOf(const InputDescription& description, std::uint32_t usagePage);

/// The usage page of a HID device as a whole: that of its first collection. A keyboard that has
/// media keys as well is a keyboard. Nothing for a report descriptor without a collection.
std::optional<std::uint32_t> primaryUsagePage(std::string_view reportDescriptor);

}  // namespace corvane
