#pragma once

#include <sys/types.h>

#include <span>
#include <string_view>
#include <utility>

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// What the logic of a virtio port asks of the kernel. A call each, so that tests can put any
/// event between any two of them. Failures are -1 with errno set, unless another is named.
class PortCalls {
 public:
    virtual ~PortCalls() = default;

    /// read(2) and write(2), which do not block.
    virtual ssize_t read(std::span<char> buffer) = 0;
    virtual ssize_t write(std::string_view bytes) = 0;

    enum class InputState { ready, silent, noHost };

    /// While the host is connected, waits for its bytes, or until `limit` milliseconds are over in
    /// silence. Without one it ends at once, whether there are bytes or not; so it does, too, when
    /// the wait fails, for want of memory.
    virtual InputState waitForInput(int limit) = 0;

    enum class OutputState { ready, hostGone, failed };

    /// Waits until the port takes output or has no host. When the wait fails, for want of memory,
    /// it is ready: the write does not block, and says itself whether it can be done.
    virtual OutputState waitForOutput() = 0;

    enum class Change { happened, none, failed };

    /// Waits until something has happened at the port since the last such wait, or since it was
    /// opened, or until `limit` milliseconds are over. It may return for nothing, but never without
    /// a wake-up by the kernel or a signal.
    virtual Change waitForChange(int limit) = 0;

    static constexpr int noLimit = -1;
};

/// The calls on a real descriptor, which is borrowed.
class DescriptorPortCalls final : public PortCalls {
 public:
    /// Makes the watch that `waitForChange` needs: an edge-triggered epoll, close-on-exec.
    static SystemResult<DescriptorGuard> watch(int descriptor);

    DescriptorPortCalls(int descriptor, DescriptorGuard watch) noexcept
        : descriptor_(descriptor), watch_(std::move(watch)) {}

    ssize_t read(std::span<char> buffer) override;
    ssize_t write(std::string_view bytes) override;
    InputState waitForInput(int limit) override;
    OutputState waitForOutput() override;
    Change waitForChange(int limit) override;

 private:
    int descriptor_;
    DescriptorGuard watch_;
};

}  // namespace corvane
