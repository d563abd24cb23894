// The primary usage page of a HID report descriptor, against a plain reading of its items.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/input_description.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

struct Item {
    unsigned type = 0;  ///< 0: main, 1: global, 2: local
    unsigned tag = 0;
    std::vector<std::uint8_t> data;
};

/// Device Class Definition for HID 1.11, sections 6.2.2.2 and 6.2.2.3. What is missing at the end
/// is zero.
std::vector<Item> shortItemsOf(std::string_view descriptor) {
    std::vector<Item> items;
    std::size_t place = 0;
    const auto take = [&]() -> std::uint8_t {
        return place < descriptor.size() ? static_cast<std::uint8_t>(descriptor[place++]) : 0;
    };
    while (place < descriptor.size()) {
        const unsigned prefix = take();
        const bool isLong = prefix == 0xFE;
        constexpr std::size_t sizes[] = {0, 1, 2, 4};
        std::size_t size = sizes[prefix % 4];
        if (isLong) {
            size = take();
            take();
        }
        Item item{prefix / 4 % 4, prefix / 16, {}};
        for (std::size_t index = 0; index < size; ++index) {
            item.data.push_back(take());
        }
        if (!isLong) {
            items.push_back(item);
        }
    }
    return items;
}

std::uint32_t valueOf(const Item& item) {
    std::uint32_t value = 0;
    unsigned shift = 0;
    for (const std::uint8_t byte : item.data) {
        value |= std::uint32_t{byte} << shift;
        shift += 8;
    }
    return value;
}

std::optional<std::uint32_t> expectedPage(const std::vector<Item>& items) {
    const auto collection = std::ranges::find_if(
        items, [](const Item& item) { return item.type == 0 && item.tag == 10; });
    if (collection == items.end()) {
        return std::nullopt;
    }
    std::uint32_t page = 0;
    std::vector<Item> usages;
    for (auto item = items.begin(); item != collection; ++item) {
        if (item->type == 1 && item->tag == 0) {
            page = valueOf(*item);
        } else if (item->type == 2 && item->tag == 0) {
            usages.push_back(*item);
        }
    }
    const bool hasItsOwn = !usages.empty() && usages.front().data.size() == 4;
    return hasItsOwn ? valueOf(usages.front()) / 65536 : page;
}

void run(std::string_view input) {
    // Its own memory, so that one byte too far is seen.
    const std::vector<char> copy(input.begin(), input.end());
    const std::string_view descriptor(copy.data(), copy.size());
    check(primaryUsagePage(descriptor) == expectedPage(shortItemsOf(descriptor)), "the page is it");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
