#pragma once

#include <ctime>
#include <optional>

namespace corvane {

/// The guest's wall clock, CLOCK_REALTIME of clock_gettime(2). One thread.
class Clock {
 public:
    virtual ~Clock() = default;

    /// The time since 1970-01-01 00:00:00 UTC, or nothing when the clock cannot be read.
    [[nodiscard]] virtual std::optional<std::timespec> read() = 0;

    /// False when the clock was not set: for want of privilege, or because the time is none that
    /// the guest's clock can have.
    [[nodiscard]] virtual bool set(const std::timespec& time) = 0;
};

}  // namespace corvane
