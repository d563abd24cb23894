#include "platform/linux/key_report.h"

#include <utility>

namespace corvane {

std::optional<HidEvent> KeyReport::take(const input_event& record) {
    if (record.type == EV_SYN) {
        scanCode_.reset();
        // What follows a loss belongs to a report whose beginning nobody knows.
        recordsWereLost_ =
            record.code == SYN_DROPPED || (recordsWereLost_ && record.code != SYN_REPORT);
        return std::nullopt;
    }
    if (recordsWereLost_) {
        return std::nullopt;
    }
    if (record.type == EV_KEY) {
        return takeKey(record);
    }
    scanCode_.reset();
    if (record.type == EV_MSC && record.code == MSC_SCAN) {
        scanCode_ = static_cast<std::uint32_t>(record.value);
    }
    return std::nullopt;
}

std::optional<HidEvent> KeyReport::takeKey(const input_event& record) {
    constexpr unsigned pageShift = 16;  // a HID device's scan code: the page above, the usage below
    constexpr std::uint32_t usageMask = 0xFFFF;
    const std::optional<std::uint32_t> scanCode = std::exchange(scanCode_, std::nullopt);
    if (record.value != 0 && record.value != 1) {
        return std::nullopt;
    }
    HidEvent event;
    event.type = HidEvent::keyboardType;
    event.keyDown = static_cast<std::uint32_t>(record.value);
    if (source_ == KeySource::hid && scanCode) {
        event.usagePage = *scanCode >> pageShift;
        event.usage = *scanCode & usageMask;
        return event;
    }
    if (source_ == KeySource::powerButton && !scanCode && record.code == KEY_POWER) {
        event.usagePage = consumerUsagePage;
        event.usage = consumerPowerUsage;
        return event;
    }
    return std::nullopt;
}

}  // namespace corvane
