#include <chrono>

#include <gtest/gtest.h>

#include "platform/linux/linux_remote_login.h"
#include "platform/linux/service_manager.h"

namespace corvane {
namespace {

TEST(AgentWithoutLibsystemd, KnowsNoServiceManager) {
    EXPECT_FALSE(thisGuestsServiceManager().runs());
    const ServiceManager running{[] { return true; }, "unix:path=/a", "unix:path=/b"};
    EXPECT_FALSE(askServiceManager(running, PowerAction::powerOff, std::chrono::seconds(1)));
}

TEST(AgentWithoutLibsystemd, HasNoRemoteLogin) {
    LinuxRemoteLogin login;
    EXPECT_FALSE(login.isAvailable());
    EXPECT_FALSE(login.authorise());
    login.setEnabled(true);
}

}  // namespace
}  // namespace corvane
