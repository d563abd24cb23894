#pragma once

#include <linux/vm_sockets.h>
#include <sys/socket.h>

#include "platform/vsock_sockets.h"

namespace corvane {

/// The address of a port of a context, in Linux's layout. See vsock(7).
sockaddr_vm vsockAddress(std::uint32_t contextId, std::uint32_t port) noexcept;

/// vsock sockets of Linux's AF_VSOCK.
class LinuxVsockSockets final : public VsockSockets {
 public:
    SystemResult<DescriptorGuard> createStream() override;
    int connectTo(int descriptor, std::uint32_t contextId, std::uint32_t port) override;
};

}  // namespace corvane
