#include "platform/linux/label_reply.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>

namespace corvane {

namespace {

/// Copies a structure out of the datagram, whose alignment is its own.
template <typename T>
T structureAt(const char* position) {
    T structure;
    std::memcpy(&structure, position, sizeof(structure));
    return structure;
}

void noteOwner(std::string_view message, std::vector<AddressOwner>& owners) {
    if (message.size() < sizeof(ifaddrmsg)) {
        return;
    }
    const auto interfaceIndex = structureAt<ifaddrmsg>(message.data()).ifa_index;
    LabelledAddress address{};
    std::size_t offset = NLMSG_ALIGN(sizeof(ifaddrmsg));
    while (offset + sizeof(rtattr) <= message.size()) {
        const auto attribute = structureAt<rtattr>(message.data() + offset);
        if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > message.size()) {
            return;
        }
        const char* const content = message.data() + offset + RTA_LENGTH(0);
        const std::size_t length = attribute.rta_len - RTA_LENGTH(0);
        if (attribute.rta_type == IFA_LABEL) {
            address.first.assign(content, ::strnlen(content, length));
        } else if (attribute.rta_type == IFA_LOCAL && length == address.second.size()) {
            std::memcpy(address.second.data(), content, length);
        }
        offset += RTA_ALIGN(attribute.rta_len);
    }
    owners.emplace_back(std::move(address), interfaceIndex);
}

}  // namespace

bool readLabelReply(std::string_view datagram, std::vector<AddressOwner>& owners) {
    std::size_t offset = 0;
    while (offset + sizeof(nlmsghdr) <= datagram.size()) {
        const auto header = structureAt<nlmsghdr>(datagram.data() + offset);
        if (header.nlmsg_len < sizeof(nlmsghdr) || offset + header.nlmsg_len > datagram.size() ||
            header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
            return false;
        }
        if (header.nlmsg_type == RTM_NEWADDR) {
            noteOwner(datagram.substr(offset + NLMSG_HDRLEN,
                                      header.nlmsg_len - std::size_t{NLMSG_HDRLEN}),
                      owners);
        }
        offset += NLMSG_ALIGN(header.nlmsg_len);
    }
    return true;
}

}  // namespace corvane
