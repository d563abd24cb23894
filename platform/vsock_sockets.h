#pragma once

#include <cerrno>
#include <cstdint>

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// vsock stream sockets. One thread.
class VsockSockets {
 public:
    virtual ~VsockSockets() = default;

    /// A new stream socket, close-on-exec. The errno values are the kernel's own.
    virtual SystemResult<DescriptorGuard> createStream() = 0;

    /// Connects `descriptor` to a port of a context. Waits as long as the kernel does.
    /// Returns 0 or an errno value.
    virtual int connectTo(int descriptor, std::uint32_t contextId, std::uint32_t port) = 0;
};

/// Whether creating a socket failed with `error` because the guest has no vsock: with the error
/// number that the caller takes for it, or with Linux's own, EAFNOSUPPORT (socket(2)).
constexpr bool meansNoVsock(int error, int absence) noexcept {
    return error == absence || error == EAFNOSUPPORT;
}

/// Whether the guest can make a vsock socket at this moment, with the platform in use.
bool isVsockAvailable();

/// The context id of the host. See vsock(7), VMADDR_CID_HOST.
inline constexpr std::uint32_t hostContextId = 2;

}  // namespace corvane
