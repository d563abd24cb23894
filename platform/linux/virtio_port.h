#pragma once

#include "platform/linux/port_calls.h"

namespace corvane {

/// The behaviour of an open virtio port, made out of the kernel's, which differs from every other
/// channel's: while no host is connected a read ends at once and the port always polls readable,
/// and a blocked write outlasts the host that it was meant for.
///
/// Here the input ends when the host goes from connected to not connected, once; then, and before
/// the first host, the port waits for one, without using the processor. Main thread.
class VirtioPort {
 public:
    /// Borrows `calls`.
    explicit VirtioPort(PortCalls& calls) noexcept : calls_(calls) {}

    /// As `ChannelDevice::receive`.
    ssize_t receive(std::span<char> buffer);

    /// As `ChannelDevice::send`: in the pieces that the kernel takes, until all is out or the host
    /// has left.
    void send(std::string_view bytes);

    /// Whether the last `receive` has told the end of input, as opposed to bytes or an error.
    [[nodiscard]] bool inputHasEnded() const noexcept { return inputHasEnded_; }

 private:
    void sendPieces(std::string_view bytes);

    PortCalls& calls_;
    bool hostConnected_ = false;  ///< as far as the receiver knows
    bool inputHasEnded_ = false;
};

}  // namespace corvane
