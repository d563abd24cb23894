#include "platform/linux/linux_hypervisor.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

class HypervisorTest : public testing::Test {
 protected:
    [[nodiscard]] std::optional<std::int32_t> inFiles() const {
        return hypervisorInFiles(tree_.path("proc"), tree_.path("sys"));
    }

    void makeIdentity(const std::string& name, const std::string& text) const {
        tree_.makeFile("sys/class/dmi/id/" + name, text + "\n");
    }

    TemporaryTree tree_;
};

TEST_F(HypervisorTest, WithoutAnySourceItCannotBeTold) {
    EXPECT_EQ(inFiles(), std::nullopt);
}

TEST_F(HypervisorTest, AHypervisorNodeOfTheDeviceTreeShowsIt) {
    tree_.makeDirectory("proc/device-tree/hypervisor");
    EXPECT_EQ(inFiles(), 1);
}

TEST_F(HypervisorTest, TheFirmwareConfigurationDeviceShowsIt) {
    tree_.makeDirectory("proc/device-tree/fw-cfg@9020000");
    EXPECT_EQ(inFiles(), 1);
}

TEST_F(HypervisorTest, ADeviceTreeOfHardwareShowsNone) {
    tree_.makeDirectory("proc/device-tree/cpus");
    EXPECT_EQ(inFiles(), 0);
}

TEST_F(HypervisorTest, TheHypervisorsOwnFolderShowsIt) {
    tree_.makeFile("sys/hypervisor/type", "xen\n");
    EXPECT_EQ(inFiles(), 1);
}

TEST_F(HypervisorTest, MakerAndModelShowAVirtualMachine) {
    makeIdentity("sys_vendor", "Some Maker");
    makeIdentity("product_name", "Model 5");
    EXPECT_EQ(inFiles(), 0);
    makeIdentity("sys_vendor", "QEMU");
    EXPECT_EQ(inFiles(), 1);
}

TEST_F(HypervisorTest, AMakerOfBothIsKnownByTheModel) {
    makeIdentity("sys_vendor", "Microsoft Corporation");
    makeIdentity("product_name", "Surface");
    EXPECT_EQ(inFiles(), 0);
    makeIdentity("product_name", "Virtual Machine");
    EXPECT_EQ(inFiles(), 1);
}

TEST_F(HypervisorTest, ANameInTheMiddleOfATextIsNone) {
    makeIdentity("product_name", "Not QEMU");
    EXPECT_EQ(inFiles(), 0);
}

#if defined(__x86_64__)
TEST_F(HypervisorTest, TheProcessorsWordIsWhatTheKernelReports) {
    std::ifstream information("/proc/cpuinfo");
    bool flagged = false;
    for (std::string word; information >> word;) {
        flagged = flagged || word == "hypervisor";
    }
    EXPECT_EQ(LinuxHypervisor(tree_.path("proc"), tree_.path("sys")).presentIndicator(),
              flagged ? 1 : 0);
}
#endif

}  // namespace
}  // namespace corvane
