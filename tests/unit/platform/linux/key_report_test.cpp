#include "platform/linux/key_report.h"

#include <linux/input.h>

#include <vector>

#include <gtest/gtest.h>

namespace corvane {

bool operator==(const HidEvent& one, const HidEvent& other) {
    return one.type == other.type && one.usagePage == other.usagePage && one.usage == other.usage &&
           one.keyDown == other.keyDown;
}

namespace {

using Events = std::vector<HidEvent>;

constexpr std::uint32_t keyboard = HidEvent::keyboardType;

input_event record(int type, int code, int value) {
    input_event made{};
    made.type = static_cast<__u16>(type);
    made.code = static_cast<__u16>(code);
    made.value = value;
    return made;
}

input_event scan(int code) {
    return record(EV_MSC, MSC_SCAN, code);
}

input_event key(int code, int value) {
    return record(EV_KEY, code, value);
}

const input_event end = record(EV_SYN, SYN_REPORT, 0);
const input_event lost = record(EV_SYN, SYN_DROPPED, 0);

Events eventsOf(KeySource source, const std::vector<input_event>& records) {
    KeyReport report(source);
    Events events;
    for (const input_event& each : records) {
        if (const auto event = report.take(each)) {
            events.push_back(*event);
        }
    }
    return events;
}

TEST(KeyReport, ScanCodeOfAHidDeviceIsItsPageAndItsUsage) {
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}}));
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), key(KEY_POWER, 0), end}),
              (Events{{keyboard, 0x0C, 0x30, 0}}));
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0040), key(KEY_MENU, 1), end}),
              (Events{{keyboard, 0x0C, 0x40, 1}}));
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0x70066), key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x07, 0x66, 1}}));
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0x70030), key(KEY_RIGHTBRACE, 1), end}),
              (Events{{keyboard, 0x07, 0x30, 1}}));
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0x10081), key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x01, 0x81, 1}}));
}

TEST(KeyReport, VendorsPageWithItsHighestBitIsAPageLikeAnyOther) {
    const auto code = static_cast<int>(0xFF000030U);
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(code), key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0xFF00, 0x30, 1}}));
}

TEST(KeyReport, TheKeyOfAHidDeviceDoesNotMatter) {
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), key(KEY_UNKNOWN, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}}));
}

TEST(KeyReport, HidKeyWithoutAScanCodeIsNoEvent) {
    EXPECT_EQ(eventsOf(KeySource::hid, {key(KEY_POWER, 1), end}), Events());
}

TEST(KeyReport, ScanCodeWithoutAKeyIsNoEvent) {
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), end}), Events());
}

TEST(KeyReport, ScanCodeBelongsToTheNextRecordAlone) {
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), end, key(KEY_POWER, 1), end}), Events());
    EXPECT_EQ(
        eventsOf(KeySource::hid, {scan(0xC0030), record(EV_REL, REL_X, 1), key(KEY_POWER, 1), end}),
        Events());
    EXPECT_EQ(eventsOf(KeySource::hid,
                       {scan(0xC0030), record(EV_MSC, MSC_RAW, 1), key(KEY_POWER, 1), end}),
              Events());
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), key(KEY_MENU, 1), key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}}));
}

TEST(KeyReport, SeveralKeysOfOneReportAreAsManyEvents) {
    EXPECT_EQ(eventsOf(KeySource::hid,
                       {scan(0xC0030), key(KEY_POWER, 0), scan(0xC0040), key(KEY_MENU, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 0}, {keyboard, 0x0C, 0x40, 1}}));
}

TEST(KeyReport, RepeatIsNeitherPressNorRelease) {
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), key(KEY_POWER, 2), end}), Events());
    EXPECT_EQ(eventsOf(KeySource::powerButton, {key(KEY_POWER, 2), end}), Events());
}

TEST(KeyReport, NothingComesOfAReportWithLostRecords) {
    EXPECT_EQ(eventsOf(KeySource::hid, {lost, scan(0xC0030), key(KEY_POWER, 1), end}), Events());
    EXPECT_EQ(eventsOf(KeySource::hid, {scan(0xC0030), lost, key(KEY_POWER, 1), end}), Events());
    EXPECT_EQ(eventsOf(KeySource::hid, {lost, record(EV_SYN, SYN_MT_REPORT, 0), scan(0xC0030),
                                        key(KEY_POWER, 1), end}),
              Events());
    EXPECT_EQ(eventsOf(KeySource::powerButton, {lost, key(KEY_POWER, 1), end}), Events());
}

TEST(KeyReport, TheReportAfterALossCountsAgain) {
    EXPECT_EQ(eventsOf(KeySource::hid, {lost, scan(0xC0040), key(KEY_MENU, 1), end, scan(0xC0030),
                                        key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}}));
    EXPECT_EQ(eventsOf(KeySource::powerButton, {lost, end, key(KEY_POWER, 1), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}}));
}

TEST(KeyReport, MachinesPowerButtonIsConsumerPower) {
    EXPECT_EQ(eventsOf(KeySource::powerButton, {key(KEY_POWER, 1), end, key(KEY_POWER, 0), end}),
              (Events{{keyboard, 0x0C, 0x30, 1}, {keyboard, 0x0C, 0x30, 0}}));
}

TEST(KeyReport, OtherKeysOfTheMachineAreNoEvents) {
    EXPECT_EQ(eventsOf(KeySource::powerButton,
                       {key(KEY_SLEEP, 1), key(KEY_MENU, 1), record(EV_SW, SW_LID, 1), end}),
              Events());
}

TEST(KeyReport, MachinesButtonHasNoScanCode) {
    EXPECT_EQ(eventsOf(KeySource::powerButton, {scan(0x10081), key(KEY_POWER, 1), end}), Events());
}

TEST(KeyReport, NothingComesOfADeviceThatDoesNotCount) {
    EXPECT_EQ(eventsOf(KeySource::none, {key(KEY_POWER, 1), scan(0xC0030), key(KEY_POWER, 1), end}),
              Events());
}

}  // namespace
}  // namespace corvane
