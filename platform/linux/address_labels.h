#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace corvane {

/// An IPv4 address in network order with the label that it goes by.
using LabelledAddress = std::pair<std::string, std::array<std::uint8_t, 4>>;

/// The interface that owns each of the guest's IPv4 addresses, by name: for labels that do not
/// begin with it. What cannot be found out, even all of it, is missing. See rtnetlink(7).
std::map<LabelledAddress, std::string> addressOwners();

}  // namespace corvane
