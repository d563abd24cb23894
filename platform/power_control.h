#pragma once

namespace corvane {

/// What becomes of the machine. The values are the flags of the power-control call as it is known
/// from BSD's reboot(2): RB_AUTOBOOT and RB_HALT.
enum class PowerAction : int { restart = 0, powerOff = 8 };

/// Takes the guest down. Any thread, several at once too.
class PowerControl {
 public:
    virtual ~PowerControl() = default;

    /// Begins the action in good order. True when it has begun, or is certain to; false when it
    /// was refused. Does not return where the machine goes down at once.
    [[nodiscard]] virtual bool perform(PowerAction action) = 0;
};

}  // namespace corvane
