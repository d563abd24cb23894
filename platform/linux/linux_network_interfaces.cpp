#include "platform/linux/linux_network_interfaces.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ifaddrs.h>
#include <map>
#include <memory>
#include <net/if.h>
#include <netpacket/packet.h>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/linux/address_labels.h"

namespace corvane {

namespace {

using Family = InterfaceAddress::Family;
using AddressBytes = std::array<std::uint8_t, 16>;

constexpr std::size_t hardwareAddressSize = 6;

Family familyOf(const sockaddr& address) {
    switch (address.sa_family) {
        case AF_PACKET:
            return Family::link;
        case AF_INET:
            return Family::ipv4;
        case AF_INET6:
            return Family::ipv6;
        default:
            return Family::other;
    }
}

/// The address within the structure of its family.
AddressBytes bytesOf(const sockaddr& address, Family family) {
    AddressBytes bytes{};
    const auto* start = reinterpret_cast<const char*>(&address);
    if (family == Family::link) {
        std::memcpy(bytes.data(), start + offsetof(sockaddr_ll, sll_addr), hardwareAddressSize);
    } else if (family == Family::ipv4) {
        std::memcpy(bytes.data(), start + offsetof(sockaddr_in, sin_addr), sizeof(in_addr));
    } else if (family == Family::ipv6) {
        std::memcpy(bytes.data(), start + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr));
    }
    return bytes;
}

InterfaceAddress convert(const ifaddrs& source) {
    InterfaceAddress entry;
    entry.interfaceName = source.ifa_name;
    entry.isUp = (source.ifa_flags & IFF_UP) != 0;
    if (source.ifa_addr == nullptr) {
        // An interface without a hardware address, such as a tunnel.
        entry.family = Family::link;
        return entry;
    }
    entry.family = familyOf(*source.ifa_addr);
    entry.address = bytesOf(*source.ifa_addr, entry.family);
    if (source.ifa_netmask != nullptr) {
        entry.mask = bytesOf(*source.ifa_netmask, entry.family);
    }
    return entry;
}

/// Finds the interface that owns an address.
class Owners {
 public:
    /// The C library names all interfaces before the first address.
    void add(const std::string& interface) { places_.try_emplace(interface, places_.size()); }

    /// The place of the entry's owner among the interfaces, or nothing when it is none of them.
    std::optional<std::size_t> placeOf(const InterfaceAddress& entry) {
        const std::string& label = entry.interfaceName;
        const auto place = placeOf(label.substr(0, label.find(':')));
        return place || entry.family != Family::ipv4 ? place : placeByLabel(entry);
    }

 private:
    [[nodiscard]] std::optional<std::size_t> placeOf(const std::string& interface) const {
        const auto found = places_.find(interface);
        return found == places_.end() ? std::nullopt : std::optional(found->second);
    }

    /// A label can be any text, and stands where the interface's name is looked for.
    std::optional<std::size_t> placeByLabel(const InterfaceAddress& entry) {
        if (!labels_) {
            labels_ = addressOwners();
        }
        LabelledAddress address(entry.interfaceName, {});
        std::copy_n(entry.address.begin(), address.second.size(), address.second.begin());
        const auto found = labels_->find(address);
        return found == labels_->end() ? std::nullopt : placeOf(found->second);
    }

    std::unordered_map<std::string, std::size_t> places_;
    std::optional<std::map<LabelledAddress, std::string>> labels_;  ///< asked for once, if at all
};

struct PlacedEntry {
    std::size_t place;
    InterfaceAddress entry;
};

std::vector<InterfaceAddress> inOrderOfInterfaces(const ifaddrs* first) {
    Owners owners;
    std::vector<PlacedEntry> placed;
    for (const ifaddrs* source = first; source != nullptr; source = source->ifa_next) {
        InterfaceAddress entry = convert(*source);
        if (entry.family == Family::link) {
            owners.add(entry.interfaceName);
        }
        if (const auto place = owners.placeOf(entry)) {
            placed.push_back({*place, std::move(entry)});
        }
    }
    std::ranges::stable_sort(placed, {}, &PlacedEntry::place);
    std::vector<InterfaceAddress> list;
    list.reserve(placed.size());
    for (PlacedEntry& next : placed) {
        list.push_back(std::move(next.entry));
    }
    return list;
}

}  // namespace

SystemResult<std::vector<InterfaceAddress>> LinuxNetworkInterfaces::list() {
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0) {
        return SystemError{errno};
    }
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owned(first, ::freeifaddrs);
    return inOrderOfInterfaces(first);
}

}  // namespace corvane
