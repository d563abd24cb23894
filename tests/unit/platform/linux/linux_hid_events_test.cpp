#include "platform/linux/linux_hid_events.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <new>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/descriptor_count.h"
#include "tests/unit/platform/linux/input_machine.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t power = 0x30;
constexpr std::uint32_t menu = 0x40;

rlim_t lowestFreeDescriptor() {
    const DescriptorGuard lowest(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    return static_cast<rlim_t>(lowest.borrow());
}

/// The listener with one device open at most times: event0, whose usages no test looks at.
class HidEventsTest : public testing::Test {
 protected:
    DescriptorGuard startWithADevice() {
        machine_.describe("event0", consumerControl());
        machine_.makeNode("event0");
        machine_.start();
        return machine_.awaitOpened("event0");
    }

    void addDevice(const std::string& name, const InputDescription& description) {
        machine_.describe(name, description);
        machine_.makeNode(name);
    }

    InputMachine machine_;
};

TEST_F(HidEventsTest, PressAndReleaseOfADeviceThatIsThereAreDelivered) {
    const DescriptorGuard device = startWithADevice();
    send(device, hidKey(0x0C, power, 1));
    send(device, hidKey(0x0C, power, 0));
    for (const std::uint32_t keyDown : {1U, 0U}) {
        const HidEvent event = machine_.nextEvent();
        EXPECT_EQ(event.type, HidEvent::keyboardType);
        EXPECT_EQ(event.usagePage, 0x0CU);
        EXPECT_EQ(event.usage, power);
        EXPECT_EQ(event.keyDown, keyDown);
    }
}

TEST_F(HidEventsTest, MachinesButtonIsDeliveredAsConsumerPower) {
    addDevice("event3", machinesButton());
    machine_.start();
    send(machine_.awaitOpened("event3"), powerKey(1));
    const HidEvent event = machine_.nextEvent();
    EXPECT_EQ(event.usagePage, 0x0CU);
    EXPECT_EQ(event.usage, power);
    EXPECT_EQ(event.keyDown, 1U);
}

TEST_F(HidEventsTest, OtherUsagePagesOfADeviceAreNotDelivered) {
    const DescriptorGuard device = startWithADevice();
    send(device, hidKey(0x07, 0x66, 1));
    send(device, hidKey(0x07, power, 1));
    send(device, hidKey(0x01, 0x81, 1));
    send(device, powerKey(1));
    send(device, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, LostRecordsOfADeviceAreFollowedOverSeveralReads) {
    const DescriptorGuard device = startWithADevice();
    input_event lost{};
    lost.type = EV_SYN;
    lost.code = SYN_DROPPED;
    send(device, {lost});
    Report unfinished = hidKey(0x0C, power, 1);
    unfinished.pop_back();
    send(device, unfinished);
    send(device, hidKey(0x0C, power, 1));  // its end is the first known
    send(device, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, ADeviceThatIsPluggedInIsRead) {
    const DescriptorGuard first = startWithADevice();
    addDevice("event12", machinesButton());
    send(machine_.awaitOpened("event12"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
    send(first, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, FolderThatComesLaterIsWatched) {
    fs::remove(machine_.tree().path("input"));
    machine_.start();
    machine_.tree().makeDirectory("input");
    addDevice("event0", machinesButton());
    send(machine_.awaitOpened("event0"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
    addDevice("event1", consumerControl());
    send(machine_.awaitOpened("event1"), hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, FolderThatIsRemovedAndMadeAgainIsWatchedAgain) {
    DescriptorGuard before = startWithADevice();
    for (int round = 0; round < 3; ++round) {
        fs::remove_all(machine_.tree().path("input"));
        machine_.tree().makeDirectory("input");
        awaitClosed(before);
        addDevice("event0", consumerControl());
        before = machine_.awaitOpened("event0");
        send(before, hidKey(0x0C, menu, 1));
        EXPECT_EQ(machine_.nextEvent().usage, menu);
    }
}

TEST_F(HidEventsTest, ADeviceThatGoesIsClosedAndTheOthersAreReadOn) {
    const DescriptorGuard other = startWithADevice();
    addDevice("event1", consumerControl());
    DescriptorGuard device = machine_.awaitOpened("event1");
    machine_.letListenerCatchUp(other);
    const std::size_t before = countDescriptors();
    device.closeNow();
    machine_.letListenerCatchUp(other);
    EXPECT_EQ(countDescriptors(), before - 2) << "this end and the listener's";
    EXPECT_EQ(machine_.timesAsked("event1"), 1U);
}

TEST_F(HidEventsTest, ADeviceThatComesAgainUnderItsNameIsRead) {
    const DescriptorGuard other = startWithADevice();
    for (int round = 0; round < 3; ++round) {
        addDevice("event1", consumerControl());
        DescriptorGuard device = machine_.awaitOpened("event1");
        send(device, hidKey(0x0C, menu, 1));
        EXPECT_EQ(machine_.nextEvent().usage, menu);
    }
}

TEST_F(HidEventsTest, ADeviceInThePlaceOfOneThatHasNotEndedIsRead) {
    const DescriptorGuard device = startWithADevice();
    machine_.makeNode("event0");
    const DescriptorGuard successor = machine_.awaitOpened("event0");
    awaitClosed(device);
    send(successor, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, ADeviceIsOpenedOnceHoweverOftenSomethingHappens) {
    const DescriptorGuard device = startWithADevice();
    fs::permissions(machine_.nodePath("event0"), fs::perms::owner_all);
    addDevice("event1", consumerControl());
    const DescriptorGuard other = machine_.awaitOpened("event1");
    machine_.letListenerCatchUp(device);
    send(device, hidKey(0x0C, power, 1));
    send(device, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
    EXPECT_EQ(machine_.nextEvent().usage, menu);
    EXPECT_EQ(machine_.timesAsked("event0"), 1U);
}

TEST_F(HidEventsTest, ADeviceWithoutKeysOfThePageIsNotKeptOpenNorAskedAgain) {
    const DescriptorGuard device = startWithADevice();
    machine_.letListenerCatchUp(device);
    const std::size_t before = countDescriptors();
    addDevice("event1", plainKeyboard());
    machine_.awaitAsked("event1", 1);
    machine_.tree().makeFile("input/mouse0", "");
    machine_.letListenerCatchUp(device);
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_EQ(machine_.timesAsked("event1"), 1U);
}

TEST_F(HidEventsTest, AnotherDeviceUnderTheNameOfOneThatDidNotCountIsRead) {
    const DescriptorGuard device = startWithADevice();
    addDevice("event1", plainKeyboard());
    machine_.awaitAsked("event1", 1);
    addDevice("event1", machinesButton());
    send(machine_.awaitOpened("event1"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
}

TEST_F(HidEventsTest, ADeviceThatCannotBeOpenedIsTriedAgain) {
    const DescriptorGuard device = startWithADevice();
    machine_.describe("button", machinesButton());
    machine_.tree().makeLink("input/event1", machine_.tree().path("elsewhere/button"));
    machine_.letListenerCatchUp(device);
    machine_.tree().makeDirectory("elsewhere");
    machine_.makeNode("../elsewhere/button");
    machine_.makeNode("event2");  // something happens
    send(machine_.awaitOpened("event1"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
}

TEST_F(HidEventsTest, ADeviceThatCannotBeDescribedIsClosedAndTriedAgain) {
    const DescriptorGuard device = startWithADevice();
    machine_.letListenerCatchUp(device);
    const std::size_t before = countDescriptors();
    machine_.makeNode("event1");
    machine_.awaitAsked("event1", 1);
    machine_.letListenerCatchUp(device);
    EXPECT_EQ(countDescriptors(), before);
    machine_.describe("event1", machinesButton());
    fs::permissions(machine_.nodePath("event1"), fs::perms::owner_all);
    send(machine_.awaitOpened("event1"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
}

TEST_F(HidEventsTest, OnlyEventDevicesAreOpened) {
    const std::array<std::string, 6> others{"event", "mouse0", "js0", "event1x", "xevent1", "mice"};
    for (const std::string& name : others) {
        addDevice(name, consumerControl());
    }
    const DescriptorGuard device = startWithADevice();
    machine_.letListenerCatchUp(device);
    for (const std::string& name : others) {
        EXPECT_EQ(machine_.timesAsked(name), 0U) << name;
    }
}

TEST_F(HidEventsTest, ADeviceThatFloodsDoesNotHoldUpAnother) {
    addDevice("event1", consumerControl());
    addDevice("event2", consumerControl());
    const DescriptorGuard flooding = machine_.openAtOnce("event1");
    const DescriptorGuard other = machine_.openAtOnce("event2");
    for (int count = 0; count < 800; ++count) {
        send(flooding, hidKey(0x07, 0x04, count % 2));
    }
    send(flooding, hidKey(0x0C, menu, 1));
    send(other, hidKey(0x0C, power, 1));
    machine_.start();
    EXPECT_EQ(machine_.nextEvent().usage, power);
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, ADeviceThatSendsPartOfARecordIsClosedAndTheOthersAreReadOn) {
    const DescriptorGuard device = startWithADevice();
    addDevice("event1", consumerControl());
    const DescriptorGuard odd = machine_.awaitOpened("event1");
    ASSERT_EQ(::write(odd.borrow(), "x", 1), 1);
    awaitClosed(odd);
    send(device, hidKey(0x0C, menu, 1));
    EXPECT_EQ(machine_.nextEvent().usage, menu);
}

TEST_F(HidEventsTest, WithoutDescriptorsADeviceIsLeftOutUntilThereAreSome) {
    const DescriptorGuard device = startWithADevice();
    machine_.letListenerCatchUp(device);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit exhausted = before;
    // poll(2) wants the limit to be no less than what it waits for: those at hand have to fit.
    exhausted.rlim_cur = lowestFreeDescriptor();
    machine_.describe("event1", machinesButton());
    // Not through the fixture in between: a sanitizer wants descriptors to look at its type.
    InputMachine& machine = machine_;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &exhausted), 0);
    machine.makeNode("event1");
    machine.letListenerCatchUp(device);
    EXPECT_EQ(machine.timesAsked("event1"), 0U);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    send(machine_.awaitOpened("event1"), powerKey(1));
    EXPECT_EQ(machine_.nextEvent().usage, power);
    EXPECT_EQ(machine_.timesAsked("event0"), 1U) << "the device at hand was kept";
}

TEST_F(HidEventsTest, NothingIsLeftOpenAfterManyDevicesHaveComeAndGone) {
    const std::size_t before = countDescriptors();
    {
        const DescriptorGuard device = startWithADevice();
        machine_.letListenerCatchUp(device);
        const std::size_t during = countDescriptors();
        for (int count = 1; count <= 200; ++count) {
            const std::string name = "event" + std::to_string(count % 7 + 1);
            addDevice(name, count % 3 == 0 ? plainKeyboard() : consumerControl());
            if (count % 3 != 0) {
                awaitClosed([this, &name] {
                    DescriptorGuard end = machine_.awaitOpened(name);
                    machine_.removeNode(name);
                    machine_.tree().makeFile("input/notice", "");
                    fs::remove(machine_.tree().path("input/notice"));
                    return end;
                }());
            }
        }
        fs::remove_all(machine_.tree().path("input"));
        machine_.tree().makeDirectory("input");
        awaitClosed(device);
        addDevice("event0", consumerControl());
        const DescriptorGuard again = machine_.awaitOpened("event0");
        machine_.letListenerCatchUp(again);
        EXPECT_EQ(countDescriptors(), during + 1) << "this test's end of the first device";
        machine_.stop();
    }
    EXPECT_EQ(countDescriptors(), before);
}

std::set<std::string> inheritedDescriptors() {
    std::set<std::string> inherited;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        const std::string name = entry.path().filename();
        const int flags = ::fcntl(std::stoi(name), F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            inherited.insert(name);
        }
    }
    return inherited;
}

TEST_F(HidEventsTest, ProgramsInheritNothing) {
    const std::set<std::string> before = inheritedDescriptors();
    const DescriptorGuard device = startWithADevice();
    machine_.letListenerCatchUp(device);
    EXPECT_EQ(inheritedDescriptors(), before);
}

TEST_F(HidEventsTest, ComesBackWithTrueWhenItIsStopped) {
    const DescriptorGuard device = startWithADevice();
    EXPECT_TRUE(machine_.stop());
}

TEST(HidEvents, CannotBeHadWithoutAFolderOfDevices) {
    const TemporaryTree tree;
    const auto describe = [](int /*device*/) { return InputDescription(); };
    LinuxHidEvents events(tree.path("nowhere"), describe);
    EXPECT_FALSE(events.deliver(consumerUsagePage, [](const HidEvent& /*event*/) {}));
}

TEST(HidEvents, CannotBeHadWithoutADescriptor) {
    const TemporaryTree tree;
    const auto describe = [](int /*device*/) { return InputDescription(); };
    LinuxHidEvents events(tree.path(), describe);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool delivered = events.deliver(consumerUsagePage, [](const HidEvent& /*event*/) {});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(delivered);
}

/// Two devices of which the first asked takes the last of the memory.
TEST(InputDevicesTest, DeviceForWhichThereIsNoMemoryIsTriedAgain) {
    InputMachine machine;
    machine.makeNode("event0");
    const DescriptorGuard device = machine.openAtOnce("event0");
    bool exhausted = false;
    InputDevices devices(
        [&exhausted](int /*descriptor*/) {
            if (exhausted) {
                throw std::bad_alloc();
            }
            return consumerControl();
        },
        consumerUsagePage);
    EXPECT_TRUE(devices.scan(machine.tree().path("input")));
    EXPECT_EQ(devices.polled(-1, -1).size(), 3U);
    machine.makeNode("event1");
    const std::size_t before = countDescriptors();
    exhausted = true;
    EXPECT_FALSE(devices.scan(machine.tree().path("input")));
    EXPECT_EQ(devices.polled(-1, -1).size(), 3U) << "the one at hand is kept";
    EXPECT_EQ(countDescriptors(), before);
    exhausted = false;
    EXPECT_TRUE(devices.scan(machine.tree().path("input")));
    EXPECT_EQ(devices.polled(-1, -1).size(), 4U);
}

/// What /sys says of a device is read with the descriptors that the device itself has left.
TEST(InputDevicesTest, DeviceThatCannotBeDescribedForWantOfMeansIsTriedAgainAndTheOthersAreKept) {
    InputMachine machine;
    machine.makeNode("event0");
    const DescriptorGuard device = machine.openAtOnce("event0");
    int error = 0;
    InputDevices devices(
        [&error](int /*descriptor*/) -> SystemResult<InputDescription> {
            if (error != 0) {
                return SystemError{error};
            }
            return consumerControl();
        },
        consumerUsagePage);
    const std::string folder = machine.tree().path("input");
    EXPECT_TRUE(devices.scan(folder));
    machine.removeNode("event0");
    machine.makeNode("event1");
    for (const int passing : {EMFILE, ENFILE, ENOMEM, EINTR}) {
        error = passing;
        EXPECT_FALSE(devices.scan(folder)) << passing;
        EXPECT_EQ(devices.polled(-1, -1).size(), 3U) << "not all was looked at";
    }
    error = ENODEV;
    EXPECT_TRUE(devices.scan(folder));
    EXPECT_EQ(devices.polled(-1, -1).size(), 2U);
    error = 0;
    EXPECT_TRUE(devices.scan(folder));
    EXPECT_EQ(devices.polled(-1, -1).size(), 3U);
}

TEST(InputDevicesTest, HandlerThatThrowsLeavesNothingOpen) {
    const std::size_t before = countDescriptors();
    {
        InputMachine machine;
        machine.describe("event0", consumerControl());
        machine.makeNode("event0");
        const DescriptorGuard device = machine.openAtOnce("event0");
        send(device, hidKey(0x0C, 0x30, 1));
        LinuxHidEvents events(machine.tree().path(),
                              [](int /*descriptor*/) { return consumerControl(); });
        const auto throwing = [](const HidEvent& /*event*/) { throw std::bad_alloc(); };
        EXPECT_THROW(static_cast<void>(events.deliver(consumerUsagePage, throwing)),
                     std::bad_alloc);
    }
    EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
}  // namespace corvane
