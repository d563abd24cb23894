#pragma once

#include "platform/clock.h"

namespace corvane {

class LinuxClock final : public Clock {
 public:
    [[nodiscard]] std::optional<std::timespec> read() override;
    /// Linux refuses times beyond the year 2232 and those that would put the guest's start before
    /// 1970 (timekeeping.c, timespec64_valid_settod and do_settimeofday64).
    [[nodiscard]] bool set(const std::timespec& time) override;
};

}  // namespace corvane
