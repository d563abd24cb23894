#include "platform/linux/linux_firmware.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

using Outcome = PropertyLookup::Outcome;

constexpr char optionsOfTree[] = "sys/firmware/devicetree/base/options";
constexpr char configuration[] = "sys/firmware/qemu_fw_cfg/by_name";
constexpr char optionsOfConfiguration[] = "sys/firmware/qemu_fw_cfg/by_name/opt/mirel/options";

class FirmwareTest : public testing::Test {
 protected:
    [[nodiscard]] LinuxFirmware firmware() const {
        return LinuxFirmware(tree_.path("proc"), tree_.path("sys"));
    }
    [[nodiscard]] PropertyLookup port() const {
        return firmware().readProperty("/options", "port");
    }
    [[nodiscard]] std::optional<std::uint64_t> argument() const {
        return firmware().bootArgument("port");
    }

    TemporaryTree tree_;
};

TEST_F(FirmwareTest, ABootArgumentIsReadFromTheKernelsCommandLine) {
    tree_.makeFile("proc/cmdline", "quiet port=0x400 -- port=5\n");
    EXPECT_EQ(argument(), 1024U);
}

TEST_F(FirmwareTest, ABootArgumentThatIsNoNumberIsAbsent) {
    tree_.makeFile("proc/cmdline", "port=7 port=x\n");
    EXPECT_EQ(argument(), std::nullopt);
}

TEST_F(FirmwareTest, WithoutACommandLineThereAreNoBootArguments) {
    EXPECT_EQ(argument(), std::nullopt);
}

TEST_F(FirmwareTest, APropertyOfTheDeviceTreeIsReadAsBytes) {
    const std::string bytes(
        "10\0"
        "24\xFF",
        6);
    tree_.makeFile(std::string(optionsOfTree) + "/port", bytes);
    const auto lookup = port();
    EXPECT_EQ(lookup.outcome, Outcome::data);
    EXPECT_EQ(lookup.data, bytes);
}

TEST_F(FirmwareTest, APropertyOfTheFirmwareConfigurationIsReadAsBytes) {
    tree_.makeFile(std::string(optionsOfConfiguration) + "/port/raw", "1024");
    const auto lookup = port();
    EXPECT_EQ(lookup.outcome, Outcome::data);
    EXPECT_EQ(lookup.data, "1024");
}

TEST_F(FirmwareTest, ANodeOfTheDeviceTreeComesBeforeTheFirmwareConfiguration) {
    tree_.makeFile(std::string(optionsOfTree) + "/port", "1");
    tree_.makeFile(std::string(optionsOfConfiguration) + "/port/raw", "2");
    EXPECT_EQ(port().data, "1");
}

TEST_F(FirmwareTest, AnEmptyDeviceTreeLeavesTheNodeToTheFirmwareConfiguration) {
    tree_.makeDirectory("sys/firmware/devicetree/base");
    tree_.makeFile(std::string(optionsOfConfiguration) + "/port/raw", "2");
    EXPECT_EQ(port().data, "2");
}

TEST_F(FirmwareTest, AnEmptyPropertyIsData) {
    tree_.makeFile(std::string(optionsOfTree) + "/port", "");
    EXPECT_EQ(port().outcome, Outcome::data);
}

TEST_F(FirmwareTest, WithoutEitherRegistryNoneIsReached) {
    const auto lookup = port();
    EXPECT_EQ(lookup.outcome, Outcome::registryUnreachable);
    EXPECT_EQ(lookup.error, ENOENT);
}

TEST_F(FirmwareTest, AMissingNodeIsToldFromAMissingProperty) {
    tree_.makeDirectory(configuration);
    EXPECT_EQ(port().outcome, Outcome::nodeAbsent);
    tree_.makeDirectory(optionsOfConfiguration);
    EXPECT_EQ(port().outcome, Outcome::propertyAbsent);
}

TEST_F(FirmwareTest, AKeyThatIsNoFileNameIsNotPrepared) {
    tree_.makeFile(std::string(optionsOfTree) + "/port", "1024");
    for (const std::string& key : {std::string(), std::string("a/port"), std::string("."),
                                   std::string(".."), std::string("port\0x", 6)}) {
        EXPECT_EQ(firmware().readProperty("/options", key).outcome, Outcome::keyNotPrepared) << key;
    }
}

TEST_F(FirmwareTest, WhatCannotBeReadAsBytesIsNoData) {
    tree_.makeDirectory(std::string(optionsOfTree) + "/port");
    EXPECT_EQ(port().outcome, Outcome::notData);
}

TEST_F(FirmwareTest, APropertyOfTheConfigurationWithoutItsBytesIsNoData) {
    tree_.makeDirectory(std::string(optionsOfConfiguration) + "/port");
    EXPECT_EQ(port().outcome, Outcome::notData);
}

TEST_F(FirmwareTest, ThePropertyLengthIsBounded) {
    const std::string file = std::string(optionsOfTree) + "/port";
    tree_.makeFile(file, std::string(LinuxFirmware::longestProperty, '1'));
    EXPECT_EQ(port().data.size(), LinuxFirmware::longestProperty);
    tree_.makeFile(file, std::string(LinuxFirmware::longestProperty + 1, '1'));
    EXPECT_EQ(port().outcome, Outcome::notData);
}

TEST_F(FirmwareTest, APipeInAPropertysPlaceDoesNotHoldTheReader) {
    tree_.makeDirectory(optionsOfTree);
    ASSERT_EQ(::mkfifo(tree_.path(std::string(optionsOfTree) + "/port").c_str(), 0600), 0);
    EXPECT_EQ(port().data, "");
}

TEST_F(FirmwareTest, APropertyThatWeMayNotReadIsNoData) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root may read every file";
    }
    tree_.makeFile(std::string(optionsOfTree) + "/port", "1024");
    ASSERT_EQ(::chmod(tree_.path(std::string(optionsOfTree) + "/port").c_str(), 0), 0);
    EXPECT_EQ(port().outcome, Outcome::notData);
}

}  // namespace
}  // namespace corvane
