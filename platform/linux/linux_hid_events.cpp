#include "platform/linux/linux_hid_events.h"

namespace corvane {

bool LinuxHidEvents::deliver(std::uint32_t /*primaryUsagePage*/, const Handler& /*handler*/) {
    return false;
}

}  // namespace corvane
