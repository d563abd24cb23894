#pragma once

#include <sys/types.h>

#include <span>
#include <string_view>

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// Opens the serial channel, and moves bytes over a channel of any kind: what a descriptor's kind
/// does differently from others when it waits, ends or takes long writes is settled below here.
/// Only the main thread calls it.
class ChannelDevice {
 public:
    virtual ~ChannelDevice() = default;

    /// Opens the serial device at `path` for reading and writing, non-blocking, close-on-exec, and
    /// not as the controlling terminal.
    virtual SystemResult<DescriptorGuard> openSerial(const char* path) = 0;

    /// Claims exclusive use of an open serial device. Returns 0 or an errno value.
    virtual int claimExclusive(int descriptor) = 0;

    /// Clears all file status flags, O_NONBLOCK among them, but for what `receive` and `send` need
    /// in order to wait. Returns 0 or an errno value.
    virtual int clearStatusFlags(int descriptor) = 0;

    /// Waits, without using the processor, until the host has sent something, the channel has ended
    /// or about `patience` milliseconds have gone by in silence. Returns how many bytes it has put
    /// into `buffer`, 0 (end of input) or -1 (error) when the channel has ended, and -1 with EAGAIN
    /// when it was silent. A port that no host has opened yet, or not again, is silent: it has not
    /// ended.
    virtual ssize_t receive(int descriptor, std::span<char> buffer, int patience) = 0;

    static constexpr int noLimit = -1;  ///< as patience

    ssize_t receive(int descriptor, std::span<char> buffer) {
        return receive(descriptor, buffer, noLimit);
    }

    /// Sends the pieces as one run of bytes, in one go. A peer that has vanished loses them; one
    /// that merely doesn't read is waited for. Nothing is reported: the next `receive` finds out.
    virtual void send(int descriptor, std::span<const std::string_view> pieces) noexcept = 0;

    void send(int descriptor, std::string_view bytes) noexcept {
        send(descriptor, std::span<const std::string_view>(&bytes, 1));
    }

    /// Lets go of a channel descriptor that has ended; -1 is none.
    virtual void closeChannel(int descriptor) noexcept = 0;
};

}  // namespace corvane
