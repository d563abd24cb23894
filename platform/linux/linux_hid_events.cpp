#include "platform/linux/linux_hid_events.h"

#include <poll.h>

#include <span>
#include <utility>

#include "platform/linux/input_folder.h"
#include "platform/linux/interrupted_call.h"

namespace corvane {

LinuxHidEvents::LinuxHidEvents(std::string deviceRoot, InputDevices::Describe describe,
                               int stopDescriptor)
    : deviceRoot_(std::move(deviceRoot)),
      describe_(std::move(describe)),
      stopDescriptor_(stopDescriptor) {}

bool LinuxHidEvents::deliver(std::uint32_t primaryUsagePage, const Handler& handler) {
    InputFolder folder(deviceRoot_, "input");
    InputDevices devices(describe_, primaryUsagePage);
    if (!folder.watch()) {
        return false;
    }
    devices.scan(folder.path());
    for (;;) {
        const std::span<pollfd> waited = devices.polled(stopDescriptor_, folder.descriptor());
        if (untilUninterrupted([waited] { return ::poll(waited.data(), waited.size(), -1); }) < 0) {
            return false;
        }
        if (waited[0].revents != 0) {
            return true;
        }
        // Which devices have gone comes first: another may have come in the place of one.
        devices.read(handler);
        if (waited[1].revents != 0 && folder.takeNotices()) {
            folder.watch();
            devices.scan(folder.path());
        }
    }
}

}  // namespace corvane
