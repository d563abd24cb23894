#pragma once

#include "platform/network_interfaces.h"

namespace corvane {

/// Network interfaces as getifaddrs(3) lists them. The C library gives all link-level entries
/// first, then all IPv4 and all IPv6 addresses: here each address follows the entry of the
/// interface that owns it, in the C library's order otherwise.
class LinuxNetworkInterfaces final : public NetworkInterfaces {
 public:
    [[nodiscard]] SystemResult<std::vector<InterfaceAddress>> list() override;
};

}  // namespace corvane
