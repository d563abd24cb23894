#pragma once

#include "platform/linux/port_calls.h"

namespace corvane {

/// The behaviour of an open virtio port, made out of the kernel's, which differs from every other
/// channel's: while no host is connected a read ends at once and the port always polls readable,
/// and a blocked write outlasts the host that it was meant for.
///
/// The descriptor does not block. Here the input ends when the host goes from connected to not
/// connected, once; then, and before the first host, the port waits for one, without using the
/// processor.
///
/// A host's bytes may overtake the kernel's notice that it has connected: they come by another
/// queue. Bytes of a host that is not shown as connected are thus either early or a legacy, and the
/// notice is waited for, for a short while, before the host counts as gone. Main thread.
class VirtioPort {
 public:
    /// Borrows `calls`.
    explicit VirtioPort(PortCalls& calls) noexcept : calls_(calls) {}

    /// As `ChannelDevice::receive`. A signal, or a change that brings nothing, starts the patience
    /// anew, and the notice of a host is waited for besides.
    ssize_t receive(std::span<char> buffer, int patience = PortCalls::noLimit);

    /// As `ChannelDevice::send`: as much at once as the kernel takes, until all is out, the host
    /// has left or the device has refused a piece.
    void send(std::span<const std::string_view> pieces);

    void send(std::string_view bytes) { send(std::span<const std::string_view>(&bytes, 1)); }

    /// Whether the last `receive` has told the end of input, as opposed to bytes or an error.
    [[nodiscard]] bool inputHasEnded() const noexcept { return inputHasEnded_; }

 private:
    enum class Host {
        absent,  ///< none has come since the last end
        seen,    ///< the kernel showed it as connected when we last looked
        heard,   ///< its last bytes came while the kernel showed no host
        gone,    ///< not shown, and waited for in vain: its end is still to be told
    };

    bool sendPiece(std::string_view bytes, bool begun);
    bool hostTakesOutput(bool begun);
    bool noticeMayHaveCome();

    PortCalls& calls_;
    Host host_ = Host::absent;
    bool inputHasEnded_ = false;
};

}  // namespace corvane
