#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane {

/// An IPv4 address in network order with the label that it goes by.
using LabelledAddress = std::pair<std::string, std::array<std::uint8_t, 4>>;

/// An address and the index of the interface that owns it.
using AddressOwner = std::pair<LabelledAddress, unsigned>;

/// Reads one datagram of the kernel's answer to RTM_GETADDR and adds the addresses in it to
/// `owners`. Whether more is to come after it. What is cut off or makes no sense ends the reading.
/// See rtnetlink(7), and netlink(3) for the layout.
bool readLabelReply(std::string_view datagram, std::vector<AddressOwner>& owners);

}  // namespace corvane
