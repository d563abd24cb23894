// The records of an input device, as many as there are in the input, against a plain reading: the
// reports first, then the keys of each.

#include <linux/input.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/linux/key_report.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

struct Key {
    std::uint32_t page;
    std::uint32_t usage;
    std::uint32_t down;
    bool operator==(const Key&) const = default;
};

/// Records that four bytes each stand for, so that those that mean something are near each other.
std::vector<input_event> recordsIn(std::string_view input) {
    constexpr std::uint16_t types[] = {EV_SYN, EV_KEY, EV_MSC, EV_REL};
    constexpr std::uint16_t codes[] = {0, 1, SYN_DROPPED, MSC_SCAN, KEY_POWER, KEY_POWER2};
    constexpr std::int32_t values[] = {0, 1, 2, -1, 0x000C0030, 0x000C0040, 0x00070004};
    std::vector<input_event> records;
    const auto byteAt = [input](std::size_t place) {
        return std::size_t{static_cast<unsigned char>(input[place])};
    };
    for (std::size_t place = 0; place + 4 <= input.size(); place += 4) {
        input_event record{};
        record.type = types[byteAt(place) % std::size(types)];
        record.code = codes[byteAt(place + 1) % std::size(codes)];
        const std::size_t value = byteAt(place + 2);
        record.value = value < std::size(values)
                           ? values[value]
                           : static_cast<std::int32_t>(value << 16 | byteAt(place + 3));
        records.push_back(record);
    }
    return records;
}

/// The reports without their ends. Of one in which records were lost, and of what is left of it
/// behind the loss, only what came before is there.
std::vector<std::vector<input_event>> reportsOf(const std::vector<input_event>& records) {
    std::vector<std::vector<input_event>> reports(1);
    bool lost = false;
    for (const input_event& record : records) {
        if (record.type != EV_SYN) {
            if (!lost) {
                reports.back().push_back(record);
            }
            continue;
        }
        lost = record.code == SYN_DROPPED || (lost && record.code != SYN_REPORT);
        reports.emplace_back();
    }
    return reports;
}

/// A key counts by the scan code that stands right before it, or, a button, for having none.
std::optional<Key> keyAt(const std::vector<input_event>& report, std::size_t place,
                         KeySource source) {
    const input_event& record = report[place];
    const bool hasScanCode =
        place > 0 && report[place - 1].type == EV_MSC && report[place - 1].code == MSC_SCAN;
    if (record.type != EV_KEY || (record.value != 0 && record.value != 1)) {
        return std::nullopt;
    }
    const auto down = static_cast<std::uint32_t>(record.value);
    if (source == KeySource::hid && hasScanCode) {
        const auto code = static_cast<std::uint32_t>(report[place - 1].value);
        return Key{code / 65536, code % 65536, down};
    }
    if (source == KeySource::powerButton && !hasScanCode && record.code == KEY_POWER) {
        return Key{0x0C, 0x30, down};
    }
    return std::nullopt;
}

void run(std::string_view input) {
    const std::vector<input_event> records = recordsIn(input);
    for (const KeySource source : {KeySource::none, KeySource::hid, KeySource::powerButton}) {
        std::vector<Key> expected;
        for (const auto& report : reportsOf(records)) {
            for (std::size_t place = 0; place < report.size(); ++place) {
                if (const auto key = keyAt(report, place, source)) {
                    expected.push_back(*key);
                }
            }
        }
        KeyReport reader(source);
        std::vector<Key> keys;
        for (const input_event& record : records) {
            if (const auto event = reader.take(record)) {
                check(event->type == HidEvent::keyboardType, "it is a key");
                keys.push_back({event->usagePage, event->usage, event->keyDown});
            }
        }
        check(keys == expected, "the keys are the same");
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
