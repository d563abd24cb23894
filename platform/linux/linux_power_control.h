#pragma once

#include "platform/power_control.h"

namespace corvane {

class LinuxPowerControl final : public PowerControl {
 public:
    [[nodiscard]] bool perform(PowerAction action) override;
};

}  // namespace corvane
