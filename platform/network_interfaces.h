#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/system_result.h"

namespace corvane {

/// One entry of the guest's list of interface addresses: an address of an interface, or the
/// link-level entry that stands for the interface itself.
struct InterfaceAddress {
    enum class Family : std::uint8_t { link, ipv4, ipv6, other };

    std::string interfaceName;  ///< of the interface that owns the address
    bool isUp = false;          ///< IFF_UP of netdevice(7)
    Family family = Family::other;
    /// In network order: the first six bytes of a link-level address, four of an IPv4 and sixteen
    /// of an IPv6 address. What a shorter address lacks is zero.
    std::array<std::uint8_t, 16> address{};
    std::optional<std::array<std::uint8_t, 16>> mask;  ///< in network order, likewise
};

/// The guest's network interfaces. One thread.
class NetworkInterfaces {
 public:
    virtual ~NetworkInterfaces() = default;

    /// The list as it is now: for each interface its link-level entry, then its addresses. Fails
    /// with the error of getifaddrs(3).
    [[nodiscard]] virtual SystemResult<std::vector<InterfaceAddress>> list() = 0;
};

}  // namespace corvane
