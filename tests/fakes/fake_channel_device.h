#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/channel_device.h"

namespace corvane {

/// A serial device whose every opening gives one end of a fresh socketpair; the other end, the
/// host's, waits to be taken. Reads and writes are real.
class FakeChannelDevice : public ChannelDevice {
 public:
    SystemResult<DescriptorGuard> openSerial(const char* path) override;
    int claimExclusive(int descriptor) override;
    int clearStatusFlags(int descriptor) override;
    using ChannelDevice::receive;
    ssize_t receive(int descriptor, std::span<char> buffer, int patience) override;
    using ChannelDevice::send;
    void send(int descriptor, std::span<const std::string_view> pieces) noexcept override;
    void closeChannel(int descriptor) noexcept override;

    /// Takes the host's end of the next opening that has not been taken; waits for it.
    DescriptorGuard takeHostEnd();

    /// What the next calls answer; 0 is success.
    int openError = 0;
    int claimError = 0;
    int clearFlagsError = 0;
    bool openAsDescriptorZero = false;

    /// What was asked, in order: "open PATH", "claim", "clear flags", "send".
    [[nodiscard]] std::vector<std::string> calls() const;
    void forgetCalls();

 private:
    void note(std::string call);

    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::condition_variable opened_;
    std::deque<DescriptorGuard> hostEnds_;
};

}  // namespace corvane
