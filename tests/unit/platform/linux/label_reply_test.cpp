#include "platform/linux/label_reply.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace corvane {
namespace {

template <typename T>
std::string bytesOf(const T& structure) {
    return {reinterpret_cast<const char*>(&structure), sizeof structure};
}

/// With room up to a multiple of four behind it, as the kernel has it.
std::string padded(std::string bytes) {
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

std::string attribute(unsigned short type, const std::string& content) {
    rtattr header{};
    header.rta_len = static_cast<unsigned short>(RTA_LENGTH(content.size()));
    header.rta_type = type;
    return padded(bytesOf(header) + content);
}

std::string message(unsigned short type, const std::string& body) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<unsigned>(NLMSG_LENGTH(body.size()));
    header.nlmsg_type = type;
    return padded(bytesOf(header) + body);
}

std::string addressMessage(unsigned interfaceIndex, const std::string& attributes) {
    ifaddrmsg fixed{};
    fixed.ifa_family = AF_INET;
    fixed.ifa_index = interfaceIndex;
    return message(RTM_NEWADDR, bytesOf(fixed) + attributes);
}

const std::string local = attribute(IFA_LOCAL, std::string("\x0A\0\0\x01", 4));
const AddressOwner webOnThird{{"web", {10, 0, 0, 1}}, 3};

struct Reading {
    bool moreToCome = false;
    std::vector<AddressOwner> owners;
};

Reading readingOf(const std::string& datagram) {
    // Its own memory, so that a sanitizer sees one byte too far.
    const std::vector<char> copy(datagram.begin(), datagram.end());
    Reading reading;
    reading.moreToCome = readLabelReply({copy.data(), copy.size()}, reading.owners);
    return reading;
}

TEST(LabelReply, EachAddressHasItsLabelAndTheIndexOfItsInterface) {
    const std::string label = attribute(IFA_LABEL, std::string("web\0", 4));
    const Reading reading =
        readingOf(addressMessage(3, local + label) + addressMessage(4, label + local));
    EXPECT_TRUE(reading.moreToCome);
    const AddressOwner webOnFourth{webOnThird.first, 4};
    EXPECT_EQ(reading.owners, (std::vector<AddressOwner>{webOnThird, webOnFourth}));
}

TEST(LabelReply, LabelNeedNotEndWithAZero) {
    EXPECT_EQ(readingOf(addressMessage(3, local + attribute(IFA_LABEL, "web"))).owners,
              std::vector<AddressOwner>{webOnThird});
}

TEST(LabelReply, AddressOfAnotherLengthIsNone) {
    const Reading reading = readingOf(addressMessage(3, attribute(IFA_LOCAL, "12345")));
    EXPECT_EQ(reading.owners, (std::vector<AddressOwner>{{{"", {}}, 3}}));
}

TEST(LabelReply, EndsWithTheKernelsLastMessageOrItsError) {
    for (const int type : {NLMSG_DONE, NLMSG_ERROR}) {
        const std::string last = message(static_cast<unsigned short>(type), "1234");
        const Reading reading =
            readingOf(addressMessage(3, local) + last + addressMessage(4, local));
        EXPECT_FALSE(reading.moreToCome) << type;
        EXPECT_EQ(reading.owners.size(), 1U) << type;
    }
}

TEST(LabelReply, MessagesOfOtherKindsArePassedOver) {
    const Reading reading = readingOf(message(RTM_NEWLINK, "12345678") + addressMessage(3, local));
    EXPECT_TRUE(reading.moreToCome);
    EXPECT_EQ(reading.owners.size(), 1U);
}

TEST(LabelReply, MessageThatIsCutOffEndsIt) {
    const std::string whole = addressMessage(3, local);
    for (std::size_t size = sizeof(nlmsghdr); size < whole.size(); ++size) {
        const Reading reading = readingOf(whole.substr(0, size));
        EXPECT_FALSE(reading.moreToCome) << size;
        EXPECT_TRUE(reading.owners.empty()) << size;
    }
}

TEST(LabelReply, MessageWithoutRoomForAnAddressIsPassedOver) {
    EXPECT_TRUE(readingOf(message(RTM_NEWADDR, "1234")).owners.empty());
}

TEST(LabelReply, AttributeThatReachesBeyondItsMessageSpoilsThatMessageAlone) {
    std::string broken = attribute(IFA_LABEL, "web");
    broken[0] = 100;
    const Reading reading = readingOf(addressMessage(3, local + broken) + addressMessage(4, local));
    EXPECT_TRUE(reading.moreToCome);
    ASSERT_EQ(reading.owners.size(), 1U);
    EXPECT_EQ(reading.owners.front().second, 4U);
}

TEST(LabelReply, AttributeThatIsShorterThanItsOwnHeaderSpoilsItsMessage) {
    std::string broken = attribute(IFA_LABEL, "web");
    broken[0] = 3;
    EXPECT_TRUE(readingOf(addressMessage(3, local + broken)).owners.empty());
}

}  // namespace
}  // namespace corvane
