#include "platform/linux/linux_power_control.h"

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace corvane {
namespace {

/// A guest without a service manager, and a kernel that only remembers. The real one's reboot(2)
/// would end the machine that the tests run on.
class GuestWithoutServiceManager : public testing::Test {
 protected:
    std::vector<std::string> calls_;
    int result_ = 0;

    LinuxPowerControl power_{ServiceManager{[] { return false; }, "unix:path=/nonexistent/bus",
                                            "unix:path=/nonexistent/private"},
                             LinuxPowerControl::Kernel{[this] { calls_.emplace_back("sync"); },
                                                       [this](int how) {
                                                           calls_.push_back(std::to_string(how));
                                                           return result_;
                                                       }},
                             std::chrono::seconds(20)};
};

TEST_F(GuestWithoutServiceManager, IsWrittenAndPoweredOffByTheKernel) {
    EXPECT_TRUE(power_.perform(PowerAction::powerOff));
    // LINUX_REBOOT_CMD_POWER_OFF of linux/reboot.h.
    EXPECT_EQ(calls_, (std::vector<std::string>{"sync", std::to_string(0x4321FEDC)}));
}

TEST_F(GuestWithoutServiceManager, IsWrittenAndRestartedByTheKernel) {
    EXPECT_TRUE(power_.perform(PowerAction::restart));
    // LINUX_REBOOT_CMD_RESTART of linux/reboot.h.
    EXPECT_EQ(calls_, (std::vector<std::string>{"sync", std::to_string(0x01234567)}));
}

TEST_F(GuestWithoutServiceManager, TellsWhenTheKernelRefuses) {
    result_ = -1;
    EXPECT_FALSE(power_.perform(PowerAction::powerOff));
    EXPECT_FALSE(power_.perform(PowerAction::restart));
    EXPECT_EQ(calls_.size(), 4U);
}

}  // namespace
}  // namespace corvane
