#pragma once

#include <linux/input.h>

#include <cstdint>
#include <optional>

#include "platform/hid_events.h"

namespace corvane {

/// What the records of an input device say about its keys.
enum class KeySource {
    none,         ///< nothing that counts
    hid,          ///< each key comes after a scan code: its usage page and its usage
    powerButton,  ///< a button of the machine: KEY_POWER alone, no scan code
};

/// Makes events out of the records that one input device sends, in their order. See
/// Documentation/input/event-codes.rst of the kernel. One thread.
class KeyReport {
 public:
    explicit KeyReport(KeySource source) noexcept : source_(source) {}

    /// The key that `record` completes the news of: pressed or released. Repeats are neither, and
    /// nothing comes of a report in which records were lost.
    std::optional<HidEvent> take(const input_event& record);

 private:
    std::optional<HidEvent> takeKey(const input_event& record);

    KeySource source_;
    std::optional<std::uint32_t> scanCode_;  ///< of the record before, in the same report
    bool recordsWereLost_ = false;
};

}  // namespace corvane
