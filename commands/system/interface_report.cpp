#include "commands/system/interface_report.h"

#include <arpa/inet.h>
#include <netinet/ether.h>

#include <algorithm>
#include <array>
#include <net/ethernet.h>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "commands/system/prefix_length.h"
#include "core/message.h"
#include "platform/network_interfaces.h"
#include "platform/platform.h"

namespace corvane {

namespace {

using Family = InterfaceAddress::Family;

/// An interface as it is reported, while its addresses are being collected.
struct Report {
    std::string name;
    std::string hardwareAddress;
    JsonArray addresses;
};

std::string hardwareAddressText(const InterfaceAddress& entry) {
    ether_addr address{};
    std::copy_n(entry.address.begin(), sizeof(address.ether_addr_octet), address.ether_addr_octet);
    std::array<char, sizeof("ff:ff:ff:ff:ff:ff")> text{};
    return ::ether_ntoa_r(&address, text.data());
}

template <std::size_t room>
std::string addressText(int family, const InterfaceAddress& entry) {
    std::array<char, room> text{};
    return ::inet_ntop(family, entry.address.data(), text.data(), text.size());
}

JsonValue describe(const InterfaceAddress& entry) {
    const bool isIpv4 = entry.family == Family::ipv4;
    unsigned prefix = 0;
    if (entry.mask) {
        prefix = isIpv4 ? ipv4PrefixLength(std::span(*entry.mask).first<4>())
                        : ipv6PrefixLength(*entry.mask);
    }
    JsonObject address;
    address.add("ip-address-type", std::string(isIpv4 ? "ipv4" : "ipv6"));
    address.add("ip-address", isIpv4 ? addressText<INET_ADDRSTRLEN>(AF_INET, entry)
                                     : addressText<INET6_ADDRSTRLEN>(AF_INET6, entry));
    address.add("prefix", JsonNumber::fromUnsigned(prefix));
    return address;
}

/// Groups by the order of the list alone: an address belongs to the link-level entry before it.
std::vector<Report> collect(const std::vector<InterfaceAddress>& list) {
    std::vector<Report> reports;
    for (const InterfaceAddress& entry : list) {
        if (!entry.isUp) {
            continue;
        }
        if (entry.family == Family::link) {
            reports.push_back({entry.interfaceName, hardwareAddressText(entry), {}});
        } else if (entry.family != Family::other && !reports.empty()) {
            reports.back().addresses.push_back(describe(entry));
        }
    }
    return reports;
}

}  // namespace

JsonValue handleGuestNetworkGetInterfaces(const JsonObject* /*arguments*/) {
    auto list = platform().networkInterfaces.list();
    if (!list.ok()) {
        return makeErrorResponse(genericError, "getifaddrs error " + std::to_string(list.error()));
    }
    JsonArray interfaces;
    for (Report& report : collect(list.value())) {
        if (report.addresses.empty()) {
            continue;
        }
        JsonObject interface;
        interface.add("name", std::move(report.name));
        interface.add("hardware-address", std::move(report.hardwareAddress));
        interface.add("ip-addresses", std::move(report.addresses));
        interfaces.push_back(std::move(interface));
    }
    return makeSuccessResponse(std::move(interfaces));
}

}  // namespace corvane
