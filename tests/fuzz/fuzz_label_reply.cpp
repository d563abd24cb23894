// A datagram that claims to be the kernel's answer, against a reading that cuts it into messages
// and those into attributes.

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/label_reply.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

std::uint32_t numberAt(std::string_view bytes, std::size_t place, std::size_t size) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + place, size);  // the byte order is the machine's own
    return value;
}

/// Cuts the first part off `rest`: so long as it says, with room up to a multiple of four behind.
/// False when it is shorter than `least` or does not fit.
bool takePart(std::string_view& rest, std::size_t length, std::size_t least,
              std::string_view& part) {
    if (length < least || length > rest.size()) {
        return false;
    }
    part = rest.substr(0, length);
    rest.remove_prefix(std::min((length + 3) / 4 * 4, rest.size()));
    return true;
}

/// Nothing comes of a message with a broken attribute.
void addOwner(std::string_view message, std::vector<AddressOwner>& owners) {
    constexpr std::size_t fixedPart = 8;
    if (message.size() < fixedPart) {
        return;
    }
    AddressOwner owner{{}, numberAt(message, 4, 4)};
    std::string_view rest = message.substr(fixedPart);
    while (rest.size() >= 4) {
        std::string_view attribute;
        if (!takePart(rest, numberAt(rest, 0, 2), 4, attribute)) {
            return;
        }
        const std::uint32_t type = numberAt(attribute, 2, 2);
        const std::string_view content = attribute.substr(4);
        if (type == IFA_LABEL) {
            owner.first.first = content.substr(0, content.find('\0'));
        } else if (type == IFA_LOCAL && content.size() == 4) {
            std::copy(content.begin(), content.end(), owner.first.second.begin());
        }
    }
    owners.push_back(owner);
}

bool readPlainly(std::string_view rest, std::vector<AddressOwner>& owners) {
    constexpr std::size_t headerSize = 16;
    while (rest.size() >= headerSize) {
        std::string_view message;
        if (!takePart(rest, numberAt(rest, 0, 4), headerSize, message)) {
            return false;
        }
        const std::uint32_t type = numberAt(message, 4, 2);
        if (type == NLMSG_DONE || type == NLMSG_ERROR) {
            return false;
        }
        if (type == RTM_NEWADDR) {
            addOwner(message.substr(headerSize), owners);
        }
    }
    return true;
}

void run(std::string_view input) {
    // Its own memory, so that one byte too far is seen.
    const std::vector<char> copy(input.begin(), input.end());
    const std::string_view datagram(copy.data(), copy.size());
    std::vector<AddressOwner> owners;
    std::vector<AddressOwner> expected;
    check(readLabelReply(datagram, owners) == readPlainly(datagram, expected),
          "more is to come, or not");
    check(owners == expected, "the owners are the same");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
