#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/channel_device.h"

namespace corvane {

/// Channels on Linux: virtio ports, and every other kind of descriptor. Main thread.
///
/// A port that `openSerial` has opened is let go of with `closeChannel` and nothing else. Closing
/// a port discards what the next host may have sent already, so that a port whose input has ended
/// is kept open, parked, and the next `openSerial` of the same device gives it back. It is closed
/// for good when another device is opened, or when another descriptor turns out to be the channel.
///
/// SIGPIPE must be ignored by the process: a peer that has vanished then costs only the bytes.
class LinuxChannelDevice final : public ChannelDevice {
 public:
    explicit LinuxChannelDevice(std::string sysRoot = "/sys");
    ~LinuxChannelDevice() override;

    SystemResult<DescriptorGuard> openSerial(const char* path) override;
    int claimExclusive(int descriptor) override;
    int clearStatusFlags(int descriptor) override;
    using ChannelDevice::receive;
    ssize_t receive(int descriptor, std::span<char> buffer, int patience) override;
    using ChannelDevice::send;
    void send(int descriptor, std::span<const std::string_view> pieces) noexcept override;
    void closeChannel(int descriptor) noexcept override;

 private:
    struct OpenPort;

    [[nodiscard]] OpenPort* findPort(int descriptor) const noexcept;
    bool isParked(const char* path) const;
    DescriptorGuard takeParked();
    SystemResult<DescriptorGuard> adoptPort(DescriptorGuard opened, dev_t number);
    [[nodiscard]] bool isVirtioPort(dev_t number) const;

    std::string sysRoot_;
    std::map<int, std::unique_ptr<OpenPort>> ports_;  ///< that the caller has open, by descriptor
    std::unique_ptr<OpenPort> parked_;
};

}  // namespace corvane
