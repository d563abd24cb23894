#include "platform/linux/linux_clock.h"

#include <ctime>

namespace corvane {

std::optional<std::timespec> LinuxClock::read() {
    std::timespec now{};
    return ::clock_gettime(CLOCK_REALTIME, &now) == 0 ? std::optional(now) : std::nullopt;
}

bool LinuxClock::set(const std::timespec& time) {
    return ::clock_settime(CLOCK_REALTIME, &time) == 0;
}

}  // namespace corvane
