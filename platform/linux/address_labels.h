#pragma once

#include <map>
#include <string>

#include "platform/linux/label_reply.h"

namespace corvane {

/// The interface that owns each of the guest's IPv4 addresses, by name: for labels that do not
/// begin with it. What cannot be found out, even all of it, is missing. See rtnetlink(7).
std::map<LabelledAddress, std::string> addressOwners();

}  // namespace corvane
