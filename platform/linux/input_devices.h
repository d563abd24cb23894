#pragma once

#include <poll.h>
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "core/descriptor_guard.h"
#include "core/system_result.h"
#include "platform/hid_events.h"
#include "platform/linux/input_description.h"
#include "platform/linux/key_report.h"

namespace corvane {

/// The input devices of a folder, those kept open that may have keys of one usage page: the others
/// are only remembered, since an open device wakes its reader for every movement of a mouse. One
/// thread.
class InputDevices {
 public:
    /// Asks an open device what it is.
    using Describe = std::function<SystemResult<InputDescription>(int descriptor)>;

    InputDevices(Describe describe, std::uint32_t usagePage);

    /// Opens what has come to `folder` and lets go of what is not there any more. A device that
    /// cannot be opened or described is left out and tried again the next time; so is what there is
    /// no memory for. Where the folder could not be looked at as a whole, nothing is let go of: the
    /// devices of one that has been removed go by themselves.
    ///
    /// False when something was left out for want of memory or descriptors, or since a signal came
    /// in between: another try in a while may find it.
    [[nodiscard]] bool scan(const std::string& folder);

    /// What poll(2) is to wait for: two descriptors of the caller's, -1 for none, then the open
    /// devices. Valid until the next call of any kind but `read`.
    std::span<pollfd> polled(int first, int second);

    /// Reads once, and not much, of each device that poll(2) has shown something of in `polled`,
    /// and calls `handler` for the keys of the page. Lets go of the devices that have gone.
    void read(const HidEvents::Handler& handler);

 private:
    struct Device {
        // The node: a device that goes and comes again gets a new one under its old name.
        dev_t fileSystem = 0;
        ino_t node = 0;
        timespec changed{};
        bool isListed = true;
        DescriptorGuard events;  ///< empty when nothing is to be had of the device
        KeyReport report{KeySource::none};
    };

    bool scanOrThrow(const std::string& folder);
    bool consider(const std::string& path);
    Device* find(const struct stat& status);
    bool readDevice(Device& device, short answer, const HidEvents::Handler& handler) const;

    Describe describe_;
    std::uint32_t usagePage_;
    std::vector<Device> devices_;
    std::vector<pollfd> polled_;  ///< there is always room in it for all devices
};

}  // namespace corvane
