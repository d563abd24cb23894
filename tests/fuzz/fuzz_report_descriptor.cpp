// The search for a usage page in a HID report descriptor, against a plain reading of its items.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/input_description.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

struct Item {
    unsigned type = 0;  ///< 1: global, 2: local
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

bool names(const Item& item, std::uint32_t page) {
    const bool isPage = item.type == 1 && item.tag == 0;
    const bool isUsage = item.type == 2 && item.tag <= 2 && item.data.size() == 4;
    return (isPage && valueOf(item) == page) || (isUsage && valueOf(item) / 65536 == page);
}

void run(std::string_view input) {
    // Its own memory, so that one byte too far is seen.
    const std::vector<char> copy(input.begin(), input.end());
    const std::string_view descriptor(copy.data(), copy.size());
    const std::vector<Item> items = shortItemsOf(descriptor);
    std::vector<std::uint32_t> pages = {0x0C, 0x01, 0x07, 0, 0xFFFFFFFF};
    for (const Item& item : items) {
        pages.push_back(valueOf(item));
        pages.push_back(valueOf(item) / 65536);
    }
    pages.resize(std::min<std::size_t>(pages.size(), 16));
    for (const std::uint32_t page : pages) {
        const bool expected = std::any_of(items.begin(), items.end(),
                                          [page](const Item& item) { return names(item, page); });
        check(reportDescriptorNames(descriptor, page) == expected, "the page is found or not");
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
