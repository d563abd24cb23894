#pragma once

#include <cstdint>
#include <optional>

namespace corvane {

/// Tells a virtual machine from bare hardware. One thread.
class Hypervisor {
 public:
    virtual ~Hypervisor() = default;

    /// 1 under a hypervisor, 0 without one; nothing when it cannot be told.
    virtual std::optional<std::int32_t> presentIndicator() = 0;
};

}  // namespace corvane
