#include "platform/linux/linux_hid_events.h"

#include <poll.h>

#include <span>
#include <utility>

#include "platform/linux/input_folder.h"
#include "platform/linux/interrupted_call.h"

namespace corvane {

namespace {

/// After so long, what could not be looked at for want of something is looked at again.
constexpr int retryMilliseconds = 1000;

}  // namespace

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
    bool complete = devices.scan(folder.path()) && folder.isWatchedWhole();
    for (;;) {
        const std::span<pollfd> waited = devices.polled(stopDescriptor_, folder.descriptor());
        const int limit = complete ? -1 : retryMilliseconds;
        const int ready = untilUninterrupted(
            [waited, limit] { return ::poll(waited.data(), waited.size(), limit); });
        if (ready < 0) {
            return false;
        }
        if (waited[0].revents != 0) {
            return true;
        }
        // Which devices have gone comes first: another may have come in the place of one.
        devices.read(handler);
        if (ready == 0 || (waited[1].revents != 0 && folder.takeNotices())) {
            folder.watch();
            complete = devices.scan(folder.path()) && folder.isWatchedWhole();
        }
    }
}

}  // namespace corvane
