#include "platform/linux/input_description.h"

#include <fcntl.h>
#include <linux/input.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

constexpr std::uint32_t desktopPage = 0x01;
constexpr std::uint32_t keyboardPage = 0x07;

/// Report descriptors: of a device with the keys of the Consumer page, and of a keyboard.
const std::string consumerControl(
    "\x05\x0C\x09\x01\xA1\x01\x15\x00\x26\xFF\x03\x19"
    "\x00\x2A\xFF\x03\x75\x10\x95\x01\x81\x00\xC0",
    23);
const std::string keyboard(
    "\x05\x01\x09\x06\xA1\x01\x05\x07\x15\x00\x26\xFF"
    "\x00\x19\x00\x29\xFF\x75\x08\x95\x01\x81\x00\xC0",
    24);

InputDescription machinesButton(const std::string& phys) {
    InputDescription description;
    description.bus = BUS_HOST;
    description.phys = phys;
    description.hasKeys = true;
    description.hasPowerKey = true;
    return description;
}

InputDescription hidDevice(const std::string& reportDescriptor) {
    InputDescription description;
    description.bus = BUS_USB;
    description.phys = "usb-0000:00:02.0-1/input0";
    description.hasKeys = true;
    description.hasPowerKey = true;
    description.hasScanCodes = true;
    description.isHid = true;
    description.reportDescriptor = reportDescriptor;
    return description;
}

KeySource sourceOf(InputDescription description,
                   const std::function<void(InputDescription&)>& change = {}) {
    if (change) {
        change(description);
    }
    return keySourceOf(description, consumerUsagePage);
}

TEST(KeySourceOf, MachinesButtonsAreThoseOfAcpiAndOfDeviceTrees) {
    EXPECT_EQ(sourceOf(machinesButton("LNXPWRBN/button/input0")), KeySource::powerButton);
    EXPECT_EQ(sourceOf(machinesButton("PNP0C0C/button/input0")), KeySource::powerButton);
    EXPECT_EQ(sourceOf(machinesButton("gpio-keys/input0")), KeySource::powerButton);
}

TEST(KeySourceOf, OtherDevicesOfTheMachineDoNotCount) {
    EXPECT_EQ(sourceOf(machinesButton("LNXSLPBN/button/input0")), KeySource::none);
    EXPECT_EQ(sourceOf(machinesButton("PNP0C0E/button/input0")), KeySource::none);
    EXPECT_EQ(sourceOf(machinesButton("")), KeySource::none);
    EXPECT_EQ(sourceOf(machinesButton("x/LNXPWRBN/button/input0")), KeySource::none);
    EXPECT_EQ(sourceOf(machinesButton("LNXPWRBN2/button/input0")), KeySource::none);
}

TEST(KeySourceOf, ButtonOfAnotherBusDoesNotCount) {
    for (const int bus : {BUS_USB, BUS_VIRTUAL, BUS_I8042, BUS_BLUETOOTH, 0}) {
        EXPECT_EQ(sourceOf(machinesButton("LNXPWRBN/button/input0"),
                           [bus](InputDescription& d) { d.bus = static_cast<std::uint16_t>(bus); }),
                  KeySource::none)
            << bus;
    }
}

TEST(KeySourceOf, ButtonWithoutAPowerKeyDoesNotCount) {
    const InputDescription button = machinesButton("gpio-keys/input0");
    EXPECT_EQ(sourceOf(button, [](InputDescription& d) { d.hasPowerKey = false; }),
              KeySource::none);
    EXPECT_EQ(sourceOf(button, [](InputDescription& d) { d.hasKeys = false; }), KeySource::none);
}

TEST(KeySourceOf, MachinesButtonHasEventsOfTheConsumerPageAlone) {
    EXPECT_EQ(keySourceOf(machinesButton("LNXPWRBN/button/input0"), keyboardPage), KeySource::none);
}

TEST(KeySourceOf, HidDeviceCountsForThePageOfItsFirstCollection) {
    EXPECT_EQ(keySourceOf(hidDevice(consumerControl), consumerUsagePage), KeySource::hid);
    EXPECT_EQ(keySourceOf(hidDevice(consumerControl), keyboardPage), KeySource::none);
    EXPECT_EQ(keySourceOf(hidDevice(keyboard), consumerUsagePage), KeySource::none);
    EXPECT_EQ(keySourceOf(hidDevice(keyboard), desktopPage), KeySource::hid);
    EXPECT_EQ(sourceOf(hidDevice(keyboard + consumerControl)), KeySource::none) << "media keys";
    EXPECT_EQ(sourceOf(hidDevice(consumerControl + keyboard)), KeySource::hid);
    EXPECT_EQ(sourceOf(hidDevice("")), KeySource::none);
}

TEST(KeySourceOf, BusOfAHidDeviceDoesNotMatter) {
    for (const int bus : {BUS_USB, BUS_BLUETOOTH, BUS_I2C, BUS_VIRTUAL}) {
        EXPECT_EQ(sourceOf(hidDevice(consumerControl),
                           [bus](InputDescription& d) { d.bus = static_cast<std::uint16_t>(bus); }),
                  KeySource::hid)
            << bus;
    }
}

TEST(KeySourceOf, HidDeviceWithoutKeysOrScanCodesDoesNotCount) {
    const InputDescription device = hidDevice(consumerControl);
    EXPECT_EQ(sourceOf(device, [](InputDescription& d) { d.hasKeys = false; }), KeySource::none);
    EXPECT_EQ(sourceOf(device, [](InputDescription& d) { d.hasScanCodes = false; }),
              KeySource::none);
}

/// An infrared receiver on a USB port numbers the keys of its remote, a program's own device
/// whatever it likes.
TEST(KeySourceOf, ScanCodesOfADeviceThatIsNotHidDoNotCount) {
    for (const int bus : {BUS_USB, BUS_VIRTUAL, BUS_BLUETOOTH, BUS_I8042, BUS_HOST}) {
        EXPECT_EQ(sourceOf(hidDevice(consumerControl),
                           [bus](InputDescription& d) {
                               d.isHid = false;
                               d.bus = static_cast<std::uint16_t>(bus);
                           }),
                  KeySource::none)
            << bus;
    }
}

/// Items, and then the beginning of a collection.
std::optional<std::uint32_t> pageAfter(const std::string& items) {
    return primaryUsagePage(items + "\xA1\x01");
}

TEST(PrimaryUsagePage, IsThatOfTheFirstCollection) {
    EXPECT_EQ(primaryUsagePage(consumerControl), consumerUsagePage);
    EXPECT_EQ(primaryUsagePage(keyboard), desktopPage);
    EXPECT_EQ(primaryUsagePage(keyboard + consumerControl), desktopPage);
    EXPECT_EQ(pageAfter("\x05\x01\x09\x06\x05\x0C"), consumerUsagePage)
        << "the last that was named";
    EXPECT_EQ(pageAfter(""), 0U);
}

TEST(PrimaryUsagePage, MayBeLongerThanAByte) {
    EXPECT_EQ(pageAfter({"\x06\x0C\x00", 3}), 0x0CU);
    EXPECT_EQ(pageAfter({"\x07\x0C\x00\x00\x00", 5}), 0x0CU);
    EXPECT_EQ(pageAfter({"\x06\x00\xFF", 3}), 0xFF00U);
}

TEST(PrimaryUsagePage, IsThatOfAUsageOfFourBytes) {
    EXPECT_EQ(pageAfter({"\x05\x01\x0B\x01\x00\x0C\x00", 7}), 0x0CU);
    EXPECT_EQ(pageAfter({"\x05\x01\x0B\x01\x00\x0C\x00\x0B\x06\x00\x07\x00", 12}), 0x0CU)
        << "the first usage";
    EXPECT_EQ(pageAfter({"\x05\x01\x09\x06\x0B\x01\x00\x0C\x00", 9}), 0x01U);
    EXPECT_EQ(pageAfter({"\x05\x01\x27\x01\x00\x0C\x00", 7}), 0x01U) << "a logical maximum";
    EXPECT_EQ(pageAfter({"\x05\x01\x0A\x0C\x00", 5}), 0x01U) << "no page of its own";
}

TEST(PrimaryUsagePage, IsNotReadFromTheDataOfOtherItems) {
    EXPECT_EQ(pageAfter({"\x05\x01\x26\x05\x0C", 5}), 0x01U);
    EXPECT_EQ(pageAfter({"\x05\x01\xFE\x02\x10\x05\x0C", 7}), 0x01U);
    EXPECT_EQ(pageAfter({"\xFE\x02\x10\xA1\x01\x05\x0C", 7}), 0x0CU);
}

TEST(PrimaryUsagePage, IsMissingWithoutACollection) {
    EXPECT_EQ(primaryUsagePage(""), std::nullopt);
    EXPECT_EQ(primaryUsagePage("\x05"), std::nullopt);
    EXPECT_EQ(primaryUsagePage("\x05\x0C"), std::nullopt);
    EXPECT_EQ(primaryUsagePage("\xFE"), std::nullopt);
    EXPECT_EQ(primaryUsagePage("\xFE\xFF\x01"), std::nullopt);
    EXPECT_EQ(primaryUsagePage("\x0B\x30"), std::nullopt);
}

/// /dev/null, which is 1:3 everywhere, stands in for a device node.
class HidParent : public testing::Test {
 protected:
    InputDescription describe() {
        InputDescription description;
        error_ = addHidParent(description, node_.borrow(), tree_.path());
        return description;
    }

    int error_ = -1;
    TemporaryTree tree_;
    DescriptorGuard node_{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
};

TEST_F(HidParent, IsFoundByTheNumberOfTheDevice) {
    tree_.makeLink("dev/char/1:3/device/device/subsystem", "../../../../../../../bus/hid");
    tree_.makeFile("dev/char/1:3/device/device/report_descriptor", consumerControl);
    EXPECT_TRUE(describe().isHid);
    EXPECT_EQ(describe().reportDescriptor, consumerControl);
    EXPECT_EQ(error_, 0);
}

TEST_F(HidParent, IsAskedAgainWhenItsReportDescriptorCannotBeRead) {
    tree_.makeLink("dev/char/1:3/device/device/subsystem", "../../../../../../../bus/hid");
    EXPECT_TRUE(describe().isHid);
    EXPECT_EQ(error_, ENOENT);
}

TEST_F(HidParent, SaysWhatThereAreNoDescriptorsFor) {
    tree_.makeLink("dev/char/1:3/device/device/subsystem", "../../../../../../../bus/hid");
    tree_.makeFile("dev/char/1:3/device/device/report_descriptor", consumerControl);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit exhausted = before;
    exhausted.rlim_cur = 0;
    describe();  // a sanitizer looks at the object when it is first used, with descriptors
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
    describe();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(error_, EMFILE);
}

TEST_F(HidParent, OfAnotherBusIsNone) {
    for (const std::string bus : {"acpi", "serio", "virtio", "rc", "hid-other"}) {
        std::error_code ignored;
        std::filesystem::remove(tree_.path("dev/char/1:3/device/device/subsystem"), ignored);
        tree_.makeLink("dev/char/1:3/device/device/subsystem", "../../../../../bus/" + bus);
        EXPECT_FALSE(describe().isHid) << bus;
    }
}

TEST_F(HidParent, IsMissingFromADeviceThatAProgramMade) {
    tree_.makeDirectory("dev/char/1:3/device");
    EXPECT_FALSE(describe().isHid);
}

TEST_F(HidParent, IsMissingWithoutSysfs) {
    EXPECT_FALSE(describe().isHid);
    EXPECT_EQ(error_, 0);
    node_.closeNow();
    EXPECT_FALSE(describe().isHid);
    EXPECT_EQ(error_, EBADF);
}

TEST_F(HidParent, IsAskedAgainWhenItsBusCannotBeRead) {
    tree_.makeFile("dev/char/1:3/device/device/subsystem", "no link");
    EXPECT_FALSE(describe().isHid);
    EXPECT_EQ(error_, EINVAL);
}

TEST(InputDeviceDescription, IsHadOfInputDevicesAlone) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const DescriptorGuard reader(ends[0]);
    const DescriptorGuard writer(ends[1]);
    const DescriptorGuard null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const DescriptorGuard file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    const DescriptorGuard folder(::open("/", O_RDONLY | O_CLOEXEC));
    for (const int descriptor :
         {reader.borrow(), null.borrow(), file.borrow(), folder.borrow(), -1}) {
        EXPECT_NE(describeInputDevice(descriptor).error(), 0) << descriptor;
    }
}

}  // namespace
}  // namespace corvane
