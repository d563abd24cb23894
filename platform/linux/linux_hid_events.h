#pragma once

#include "platform/hid_events.h"

namespace corvane {

class LinuxHidEvents final : public HidEvents {
 public:
    [[nodiscard]] bool deliver(std::uint32_t primaryUsagePage, const Handler& handler) override;
};

}  // namespace corvane
