#include "platform/linux/address_labels.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <utility>
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

/// Copies a structure out of the datagram, whose alignment is its own.
template <typename T>
T structureAt(const char* position) {
    T structure;
    std::memcpy(&structure, position, sizeof(structure));
    return structure;
}

void noteOwner(const char* message, std::size_t size,
               std::map<LabelledAddress, std::string>& owners) {
    if (size < sizeof(ifaddrmsg)) {
        return;
    }
    const auto interfaceIndex = structureAt<ifaddrmsg>(message).ifa_index;
    LabelledAddress address{};
    std::size_t offset = NLMSG_ALIGN(sizeof(ifaddrmsg));
    while (offset + sizeof(rtattr) <= size) {
        const auto attribute = structureAt<rtattr>(message + offset);
        if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > size) {
            return;
        }
        const char* const content = message + offset + RTA_LENGTH(0);
        const std::size_t length = attribute.rta_len - RTA_LENGTH(0);
        if (attribute.rta_type == IFA_LABEL) {
            address.first.assign(content, ::strnlen(content, length));
        } else if (attribute.rta_type == IFA_LOCAL && length == address.second.size()) {
            std::memcpy(address.second.data(), content, length);
        }
        offset += RTA_ALIGN(attribute.rta_len);
    }
    std::array<char, IF_NAMESIZE> name{};
    if (::if_indextoname(interfaceIndex, name.data()) != nullptr) {
        owners.emplace(std::move(address), name.data());
    }
}

/// Whether more is to come after this datagram.
bool readDatagram(const char* datagram, std::size_t size,
                  std::map<LabelledAddress, std::string>& owners) {
    std::size_t offset = 0;
    while (offset + sizeof(nlmsghdr) <= size) {
        const auto header = structureAt<nlmsghdr>(datagram + offset);
        if (header.nlmsg_len < sizeof(nlmsghdr) || offset + header.nlmsg_len > size ||
            header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
            return false;
        }
        if (header.nlmsg_type == RTM_NEWADDR) {
            noteOwner(datagram + offset + NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN, owners);
        }
        offset += NLMSG_ALIGN(header.nlmsg_len);
    }
    return true;
}

}  // namespace

std::map<LabelledAddress, std::string> addressOwners() {
    std::map<LabelledAddress, std::string> owners;
    const DescriptorGuard socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (socket.empty() || !requestAddresses(socket.borrow())) {
        return owners;
    }
    std::vector<char> datagram(datagramRoom);
    ssize_t size = 0;
    do {
        do {
            size = ::recv(socket.borrow(), datagram.data(), datagram.size(), 0);
        } while (size < 0 && errno == EINTR);
    } while (size > 0 && readDatagram(datagram.data(), static_cast<std::size_t>(size), owners));
    return owners;
}

}  // namespace corvane
