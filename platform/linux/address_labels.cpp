#include "platform/linux/address_labels.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <net/if.h>
#include <vector>

#include "core/descriptor_guard.h"

namespace corvane {

namespace {

constexpr std::size_t datagramRoom = 32768;  // the kernel's dumps come in pieces of this at most

struct DumpRequest {
    nlmsghdr header;
    ifaddrmsg message;
};

bool requestAddresses(int socket) {
    DumpRequest request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.message.ifa_family = AF_INET;
    return ::send(socket, &request, sizeof(request), 0) == sizeof(request);
}

/// Names the interfaces, but for those that have gone since.
std::map<LabelledAddress, std::string> nameOwners(const std::vector<AddressOwner>& owners) {
    std::map<LabelledAddress, std::string> named;
    for (const auto& [address, interfaceIndex] : owners) {
        std::array<char, IF_NAMESIZE> name{};
        if (::if_indextoname(interfaceIndex, name.data()) != nullptr) {
            named.emplace(address, name.data());
        }
    }
    return named;
}

}  // namespace

std::map<LabelledAddress, std::string> addressOwners() {
    const DescriptorGuard socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (socket.empty() || !requestAddresses(socket.borrow())) {
        return {};
    }
    std::vector<AddressOwner> owners;
    std::vector<char> datagram(datagramRoom);
    ssize_t size = 0;
    do {
        do {
            size = ::recv(socket.borrow(), datagram.data(), datagram.size(), 0);
        } while (size < 0 && errno == EINTR);
    } while (size > 0 && readLabelReply({datagram.data(), static_cast<std::size_t>(size)}, owners));
    return nameOwners(owners);
}

}  // namespace corvane
