#include "core/channel.h"

#include <fcntl.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

using Outcome = PropertyLookup::Outcome;
using Lines = std::vector<std::string>;
using Devices = std::vector<SerialDevice>;

PropertyLookup dataOf(std::string bytes) {
    return {Outcome::data, 0, std::move(bytes)};
}

class Channel : public testing::Test {
 protected:
    ~Channel() override { platform_.channelDevice.closeChannel(channelDescriptor()); }

    void publishByBootArgument(std::uint64_t port) {
        platform_.firmware.bootArguments["mirel-guest-agent-port"] = port;
        platform_.vsockSockets.createError = 0;
    }

    /// Exit status and log of an opening that is meant to end the process.
    struct End {
        int status;
        std::string log;
    };
    End endOfOpening() {
        platform_.systemLog.echoToStandardError = true;
        testing::internal::CaptureStderr();
        const int status = exitStatusOf([] { openChannel(); });
        return {status, testing::internal::GetCapturedStderr()};
    }

    [[nodiscard]] bool serialWasOpened() const { return !platform_.channelDevice.calls().empty(); }

    FakePlatform platform_;
};

TEST_F(Channel, WithoutAPublishedPortItIsTheSerialDevice) {
    openChannel();
    EXPECT_EQ(platform_.channelDevice.calls(),
              (Lines{"open /dev/tty.org.qemu.guest_agent.0", "claim", "clear flags"}));
    EXPECT_EQ(platform_.vsockSockets.created, 0);
}

TEST_F(Channel, SerialDescriptorIsCloseOnExec) {
    openChannel();
    EXPECT_EQ(::fcntl(channelDescriptor(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Channel, BootArgumentComesFirstAndTheNodesAreNotRead) {
    publishByBootArgument(1234);
    openChannel();
    EXPECT_TRUE(platform_.firmware.lookups.empty());
    ASSERT_EQ(platform_.vsockSockets.connections.size(), 1U);
    EXPECT_EQ(platform_.vsockSockets.connections[0], std::make_pair(2U, 1234U));
    EXPECT_EQ(channelDescriptor(), platform_.vsockSockets.lastDescriptor);
    EXPECT_EQ(::fcntl(channelDescriptor(), F_GETFD), FD_CLOEXEC);
    EXPECT_FALSE(serialWasOpened()) << "no exclusive use or flag change on a socket";
    EXPECT_TRUE(platform_.systemLog.status().empty());
}

TEST_F(Channel, OptionsNodeIsReadAsTextBeforeTheProductNode) {
    platform_.firmware.properties["/options"] = dataOf(std::string("1024\0", 5));
    platform_.firmware.properties["/product"] = dataOf("\x05");
    platform_.vsockSockets.createError = 0;
    openChannel();
    EXPECT_EQ(platform_.firmware.lookups, (Lines{"/options mirel-guest-agent-port"}));
    ASSERT_EQ(platform_.vsockSockets.connections.size(), 1U);
    EXPECT_EQ(platform_.vsockSockets.connections[0].second, 1024U);
}

TEST_F(Channel, ProductNodeIsReadAsBinaryWhenTheOthersFail) {
    platform_.firmware.properties["/product"] = dataOf(std::string("\x00\x04", 2));
    platform_.vsockSockets.createError = 0;
    openChannel();
    ASSERT_EQ(platform_.vsockSockets.connections.size(), 1U);
    EXPECT_EQ(platform_.vsockSockets.connections[0].second, 1024U);
    EXPECT_EQ(platform_.systemLog.status(), (Lines{"Cannot find entry /options on this system\n"}));
}

TEST_F(Channel, OverlongProductPropertyLeadsToTheSerialDevice) {
    platform_.firmware.properties["/product"] = dataOf(std::string(9, '\1'));
    openChannel();
    EXPECT_EQ(platform_.systemLog.status(),
              (Lines{"Cannot find entry /options on this system\n",
                     "Expecting no more than 8 bytes of data for uint64 key "
                     "mirel-guest-agent-port in /product\n"}));
    EXPECT_TRUE(serialWasOpened());
}

TEST_F(Channel, LargestPortIsUsed) {
    publishByBootArgument(4294967295U);
    openChannel();
    ASSERT_EQ(platform_.vsockSockets.connections.size(), 1U);
    EXPECT_EQ(platform_.vsockSockets.connections[0].second, 4294967295U);
}

TEST_F(Channel, PortAboveThirtyTwoBitsIsLoggedAndLeadsToTheSerialDevice) {
    publishByBootArgument(4294967296U);
    openChannel();
    EXPECT_EQ(platform_.systemLog.status(), (Lines{"Value 4294967296 too large for uint32\n"}));
    EXPECT_EQ(platform_.vsockSockets.created, 0);
    EXPECT_TRUE(serialWasOpened());
}

TEST_F(Channel, GuestWithoutVsockUsesTheSerialDeviceWithoutAMessage) {
    for (const int error : {ENODEV, EAFNOSUPPORT}) {
        publishByBootArgument(1024);
        platform_.vsockSockets.createError = error;
        openChannel();
        EXPECT_TRUE(serialWasOpened());
        EXPECT_TRUE(platform_.systemLog.status().empty());
        platform_.channelDevice.closeChannel(channelDescriptor());
        platform_.channelDevice.forgetCalls();
    }
    openChannel();
}

TEST_F(Channel, OtherSocketErrorsAreLogged) {
    publishByBootArgument(1024);
    platform_.vsockSockets.createError = EMFILE;
    openChannel();
    EXPECT_EQ(platform_.systemLog.status(),
              (Lines{"Error creating vsock socket: Too many open files.\n"}));
    EXPECT_TRUE(serialWasOpened());
}

TEST_F(Channel, FailedConnectionIsLoggedAndLeadsToTheSerialDevice) {
    publishByBootArgument(1024);
    platform_.vsockSockets.connectError = ECONNRESET;
    openChannel();
    EXPECT_EQ(platform_.systemLog.status(),
              (Lines{"Error connecting to vsock peer at address cid 2 and port 1024: "
                     "Connection reset by peer.\n"}));
    EXPECT_TRUE(serialWasOpened());
}

TEST_F(Channel, FailedSocketStaysOpenUntilTheNextOneFails) {
    publishByBootArgument(1024);
    platform_.vsockSockets.connectError = ECONNRESET;
    openChannel();
    const int first = platform_.vsockSockets.lastDescriptor;
    EXPECT_NE(::fcntl(first, F_GETFD), -1);
    EXPECT_NE(channelDescriptor(), first);
    for (int failures = 0; failures < 100; ++failures) {
        reopenChannel();
    }
    EXPECT_LT(platform_.vsockSockets.lastDescriptor, first + 250)
        << "the fake keeps two descriptors a round open, the agent none";
    char byte = 0;
    EXPECT_EQ(::read(platform_.vsockSockets.hostEnds[0].borrow(), &byte, 1), 0)
        << "the first failed socket is closed by now";
}

TEST_F(Channel, SocketOfDescriptorZeroIsStoredAsNone) {
    publishByBootArgument(1024);
    const int status = exitStatusOf([] {
        ::close(0);
        openChannel();
        ::_exit(channelDescriptor() == -1 ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Channel, SerialDeviceOfDescriptorZeroIsNeitherClaimedNorCleared) {
    platform_.channelDevice.openAsDescriptorZero = true;
    platform_.channelDevice.claimError = EBUSY;
    const int status = exitStatusOf([] {
        openChannel();
        ::_exit(channelDescriptor() == 0 ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Channel, SerialDeviceThatDoesNotOpenEndsTheProcessWithoutAMessage) {
    platform_.channelDevice.openError = ENOENT;
    const End end = endOfOpening();
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log,
              "Cannot find entry /options on this system\n"
              "Cannot find entry /product on this system\n");
}

class ChannelOfAnotherDriver : public Channel {
 protected:
    void expectInvalidEnvironment() {
        publishByBootArgument(1);
        platform_.vsockSockets.createError = ENODEV;
        const End end = endOfOpening();
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.log, "Invalid guest agent environment.\n");
    }
};

TEST_F(ChannelOfAnotherDriver, EndsTheProcess) {
    platform_.serialDevices.devices = Devices{{serialChannelPath, {"serial8250", "pci"}}};
    expectInvalidEnvironment();
}

TEST_F(ChannelOfAnotherDriver, EndsTheProcessWhenItHasNoParents) {
    platform_.serialDevices.devices = Devices{{serialChannelPath, {}}};
    expectInvalidEnvironment();
}

TEST_F(ChannelOfAnotherDriver, EndsTheProcessWhenItIsNotAmongTheSerialDevices) {
    platform_.serialDevices.devices = Devices{{"/dev/hvc0", {serialDriverClass}}};
    expectInvalidEnvironment();
}

TEST_F(ChannelOfAnotherDriver, EndsTheProcessWhenDevicesCannotBeListed) {
    platform_.serialDevices.devices = std::nullopt;
    expectInvalidEnvironment();
}

TEST_F(ChannelOfAnotherDriver, OnlyTheFirstDeviceOfThePathCounts) {
    platform_.serialDevices.devices =
        Devices{{serialChannelPath, {"serial8250"}}, {serialChannelPath, {serialDriverClass}}};
    expectInvalidEnvironment();
}

TEST_F(Channel, RefusedExclusiveUseEndsTheProcess) {
    publishByBootArgument(1);
    platform_.vsockSockets.createError = ENODEV;
    platform_.channelDevice.claimError = EBUSY;
    const End end = endOfOpening();
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, "Error exclusively acquiring serial port: (Device or resource busy)\n");
}

TEST_F(Channel, DriverIsCheckedBeforeExclusiveUseIsClaimed) {
    platform_.serialDevices.devices = std::nullopt;
    platform_.channelDevice.claimError = EBUSY;
    EXPECT_EQ(endOfOpening().log.find("exclusively"), std::string::npos);
}

TEST_F(Channel, FlagsThatCannotBeClearedEndTheProcess) {
    publishByBootArgument(1);
    platform_.vsockSockets.createError = ENODEV;
    platform_.channelDevice.clearFlagsError = EBADF;
    const End end = endOfOpening();
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, "Error clearing O_NONBLOCK (Bad file descriptor)\n");
}

TEST_F(Channel, ReopeningClosesTheOldDescriptorAndFallsBackWhenTheVsockHostHasGone) {
    publishByBootArgument(1024);
    openChannel();
    ASSERT_FALSE(serialWasOpened());
    platform_.vsockSockets.connectError = ECONNRESET;
    reopenChannel();
    EXPECT_TRUE(serialWasOpened());
    char byte = 0;
    EXPECT_EQ(::read(platform_.vsockSockets.hostEnds[0].borrow(), &byte, 1), 0);
}

struct PropertyCase {
    const char* name;
    PropertyLookup lookup;
    bool asText;
    int result;
    std::uint64_t port;
    std::string log;
};

class PortProperty : public testing::TestWithParam<PropertyCase> {};

TEST_P(PortProperty, IsReadOrRefusedWithItsMessage) {
    FakePlatform platform;
    const PropertyCase& param = GetParam();
    platform.firmware.properties["/node"] = param.lookup;
    std::uint64_t port = 77;
    EXPECT_EQ(readPortProperty("/node", param.asText, port), param.result);
    EXPECT_EQ(port, param.port);
    EXPECT_EQ(platform.systemLog.status(), param.log.empty() ? Lines() : Lines{param.log});
}

const PropertyCase propertyCases[] = {
    {"RegistryUnreachable",
     {Outcome::registryUnreachable, EACCES, {}},
     true,
     1,
     77,
     "Unable to reach the device registry: Permission denied\n"},
    {"NodeAbsent",
     {Outcome::nodeAbsent, 0, {}},
     true,
     1,
     77,
     "Cannot find entry /node on this system\n"},
    {"KeyNotPrepared",
     {Outcome::keyNotPrepared, 0, {}},
     true,
     1,
     77,
     "Unable to create key mirel-guest-agent-port for /node\n"},
    {"PropertyAbsent",
     {Outcome::propertyAbsent, 0, {}},
     false,
     1,
     77,
     "Unable to find key mirel-guest-agent-port in /node\n"},
    {"NotData",
     {Outcome::notData, 0, {}},
     false,
     1,
     77,
     "Expecting data for mirel-guest-agent-port in /node\n"},
    {"TextWithTerminator", dataOf(std::string("1024\0", 5)), true, 0, 1024, ""},
    {"TextWithoutTerminator", dataOf("1024"), true, 0, 1024, ""},
    {"TextStopsAtTheFirstNonDigit", dataOf("12x34"), true, 0, 12, ""},
    {"TextWithoutDigitsIsZero", dataOf("port"), true, 0, 0, ""},
    {"TextWithLeadingBlankIsZero", dataOf(" 12"), true, 0, 0, ""},
    {"TextWithASignIsZero", dataOf("-12"), true, 0, 0, ""},
    {"EmptyTextIsZero", dataOf(""), true, 0, 0, ""},
    {"TextLongerThanEightBytes", dataOf("0000000001024"), true, 0, 1024, ""},
    {"TextAboveSixtyFourBits", dataOf("99999999999999999999"), true, 0, 18446744073709551615U, ""},
    {"BinaryOfTwoBytes", dataOf(std::string("\x00\x04", 2)), false, 0, 1024, ""},
    {"BinaryOfEightBytes", dataOf("\x01\x02\x03\x04\x05\x06\x07\x08"), false, 0,
     0x0807060504030201U, ""},
    {"BinaryOfNoBytes", dataOf(""), false, 0, 0, ""},
    {"BinaryOfHighBytes", dataOf("\xFF\xFE"), false, 0, 0xFEFF, ""},
    {"BinaryOfNineBytes", dataOf(std::string(9, '\0')), false, 1, 77,
     "Expecting no more than 8 bytes of data for uint64 key mirel-guest-agent-port in /node\n"},
};

INSTANTIATE_TEST_SUITE_P(All, PortProperty, testing::ValuesIn(propertyCases),
                         [](const auto& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace corvane
