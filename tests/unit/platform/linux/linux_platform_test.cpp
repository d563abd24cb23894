#include "platform/linux/linux_platform.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(LinuxPlatform, LendsItsAdaptersWhileItIsInstalled) {
    LinuxPlatform linuxPlatform;
    const PlatformScope scope(linuxPlatform.services());
    EXPECT_EQ(&platform().channelDevice, &linuxPlatform.services().channelDevice);
    EXPECT_NE(dynamic_cast<LinuxChannelDevice*>(&platform().channelDevice), nullptr);
    EXPECT_NE(dynamic_cast<LinuxVsockSockets*>(&platform().vsockSockets), nullptr);
    EXPECT_NE(dynamic_cast<LinuxAccounts*>(&platform().accounts), nullptr);
    EXPECT_NE(dynamic_cast<LinuxPrivateDirectory*>(&platform().privateDirectory), nullptr);
    EXPECT_NE(dynamic_cast<LinuxTerminals*>(&platform().terminals), nullptr);
    EXPECT_NE(dynamic_cast<LinuxProcessInformation*>(&platform().processInformation), nullptr);
    EXPECT_NE(dynamic_cast<LinuxFileStreams*>(&platform().fileStreams), nullptr);
}

TEST(LinuxPlatform, DoesNotOfferARemoteLoginThatItCannotSwitch) {
    LinuxPlatform linuxPlatform;
    EXPECT_FALSE(linuxPlatform.services().remoteLogin.isAvailable());
}

}  // namespace
}  // namespace corvane
