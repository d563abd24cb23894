#include "core/heap.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(Heap, MemorySufficesForWhatAnyMachineHas) {
    for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1},
                                      std::uint64_t{largeMessage}, std::uint64_t{8} << 20U}) {
        EXPECT_TRUE(memorySuffices(bytes)) << bytes;
    }
}

TEST(Heap, MemoryDoesNotSufficeForWhatNoMachineHas) {
    constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t bytes : {std::uint64_t{1} << 50U, std::uint64_t{1} << 63U, largest}) {
        EXPECT_FALSE(memorySuffices(bytes)) << bytes;
    }
}

}  // namespace
}  // namespace corvane
