#include "commands/system/power_button.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/power_control.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"

namespace corvane {
namespace {

constexpr HidEvent powerPress{HidEvent::keyboardType, 0x0C, 0x30, 1};
constexpr HidEvent menuPress{HidEvent::keyboardType, 0x0C, 0x40, 1};
constexpr HidEvent powerRelease{HidEvent::keyboardType, 0x0C, 0x30, 0};

const std::vector<std::string> unavailable = {"Unable to register for HID power button events.\n"};

class PowerButton : public testing::Test {
 protected:
    /// How often the guest has been asked to power off.
    [[nodiscard]] std::size_t powerOffs() const {
        const auto performed = platform_.powerControl.performed();
        for (const PowerAction action : performed) {
            EXPECT_EQ(action, PowerAction::powerOff);
        }
        return performed.size();
    }

    bool powersOff(const HidEvent& event) {
        const std::size_t before = powerOffs();
        handlePowerButtonEvent(event);
        return powerOffs() == before + 1;
    }

    FakePlatform platform_;
};

TEST_F(PowerButton, PressesOfPowerAndOfMenuPowerOff) {
    EXPECT_TRUE(powersOff(powerPress));
    EXPECT_TRUE(powersOff(menuPress));
    EXPECT_EQ(powerOffs(), 2U);
}

TEST_F(PowerButton, PressThatMemoryDoesNotSufficeForLeavesTheListenerAtItsPlace) {
    platform_.powerControl.lacksMemory = true;
    EXPECT_NO_THROW(handlePowerButtonEvent(powerPress));
    EXPECT_EQ(platform_.systemLog.status(), std::vector<std::string>());
    platform_.powerControl.lacksMemory = false;
    EXPECT_TRUE(powersOff(powerPress));
}

TEST_F(PowerButton, EveryOtherKeyStateIsAPress) {
    for (const std::uint32_t state : {1U, 2U, 255U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_TRUE(powersOff({3, 0x0C, 0x30, state})) << state;
        EXPECT_TRUE(powersOff({3, 0x0C, 0x40, state})) << state;
    }
}

TEST_F(PowerButton, ReleasesDoNothing) {
    EXPECT_FALSE(powersOff(powerRelease));
    EXPECT_FALSE(powersOff({3, 0x0C, 0x40, 0}));
}

TEST_F(PowerButton, OtherTypesOfEventsDoNothing) {
    for (const std::uint32_t type : {0U, 1U, 2U, 4U, 17U, 0x103U, 0xFFFFFFFFU}) {
        EXPECT_FALSE(powersOff({type, 0x0C, 0x30, 1})) << type;
    }
}

TEST_F(PowerButton, OtherPagesDoNothing) {
    for (const std::uint32_t page : {0U, 1U, 7U, 0x0BU, 0x0DU, 0x10CU, 0xFFFFFFFFU}) {
        EXPECT_FALSE(powersOff({3, page, 0x30, 1})) << page;
        EXPECT_FALSE(powersOff({3, page, 0x40, 1})) << page;
    }
}

TEST_F(PowerButton, OtherUsagesDoNothing) {
    for (std::uint32_t usage = 0; usage < 0x400; ++usage) {
        EXPECT_EQ(powersOff({3, 0x0C, usage, 1}), usage == 0x30 || usage == 0x40) << usage;
    }
    EXPECT_FALSE(powersOff({3, 0x0C, 0x10030, 1}));
}

TEST_F(PowerButton, NobodyIsToldOfARefusal) {
    platform_.powerControl.accepts = false;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(powersOff(powerPress));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(platform_.systemLog.status().empty());
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(PowerButton, MayBePressedOnSeveralDevicesAtOnce) {
    constexpr std::size_t devices = 4;
    constexpr std::size_t presses = 250;
    std::vector<std::thread> threads;
    for (std::size_t device = 0; device < devices; ++device) {
        threads.emplace_back([] {
            for (std::size_t press = 0; press < presses; ++press) {
                handlePowerButtonEvent(powerPress);
                handlePowerButtonEvent(powerRelease);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(powerOffs(), devices * presses);
}

TEST_F(PowerButton, ListenerAsksForConsumerDevicesAndPowersOffOnEachPress) {
    platform_.hidEvents.events = {
        powerRelease, powerPress, powerRelease, {3, 0x07, 0x30, 1}, menuPress};
    listenForPowerButton();
    EXPECT_EQ(platform_.hidEvents.usagePages, (std::vector<std::uint32_t>{12}));
    EXPECT_EQ(powerOffs(), 2U);
    EXPECT_TRUE(platform_.systemLog.status().empty());
}

TEST_F(PowerButton, ListenerThatCannotListenSaysSoOnceAndGivesUp) {
    platform_.hidEvents.works = false;
    testing::internal::CaptureStderr();
    listenForPowerButton();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(platform_.systemLog.status(), unavailable);
    EXPECT_EQ(platform_.hidEvents.usagePages.size(), 1U) << "it does not try again";
    EXPECT_EQ(powerOffs(), 0U);
}

/// Devices whose events come to an end that nobody has foreseen.
class ThrowingHidEvents : public HidEvents {
 public:
    explicit ThrowingHidEvents(bool fromMemory) : fromMemory_(fromMemory) {}
    bool deliver(std::uint32_t /*primaryUsagePage*/, const Handler& handler) override {
        handler(powerPress);
        if (fromMemory_) {
            throw std::bad_alloc();
        }
        throw std::runtime_error("something else");
    }

 private:
    bool fromMemory_;
};

TEST_F(PowerButton, ListenerThatRunsOutOfMemorySaysSoAndDoesNotEndTheAgent) {
    for (const bool fromMemory : {true, false}) {
        ThrowingHidEvents hidEvents(fromMemory);
        FakeSystemLog log;
        Platform services = platformWith({.systemLog = &log, .hidEvents = &hidEvents});
        const PlatformScope scope(services);
        std::thread(listenForPowerButton).join();
        EXPECT_EQ(log.status(), unavailable);
    }
    EXPECT_EQ(powerOffs(), 2U);
}

}  // namespace
}  // namespace corvane
