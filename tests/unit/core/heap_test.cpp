#include "core/heap.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/own_memory.h"

namespace corvane {
namespace {

TEST(Heap, MemorySufficesForWhatAnyMachineHas) {
    for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1},
                                      std::uint64_t{hugeMessage}, std::uint64_t{8} << 20U}) {
        EXPECT_TRUE(memorySuffices(bytes)) << bytes;
    }
}

TEST(Heap, MemoryDoesNotSufficeForWhatNoMachineHas) {
    constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t bytes : {std::uint64_t{1} << 50U, std::uint64_t{1} << 63U, largest}) {
        EXPECT_FALSE(memorySuffices(bytes)) << bytes;
    }
}

/// A number of the file /proc/meminfo, in bytes.
std::uint64_t memoryOf(const std::string& name) {
    std::ifstream file("/proc/meminfo");
    for (std::string word; file >> word;) {
        if (word == name + ":") {
            std::uint64_t kilobytes = 0;
            file >> kilobytes;
            return kilobytes * 1024;
        }
    }
    return 0;
}

TEST(Heap, AnEighthOfTheAvailableMemoryIsLeftToOthers) {
    const std::uint64_t available = memoryOf("MemAvailable");
    EXPECT_TRUE(memorySuffices(available / 4 * 3));
    EXPECT_FALSE(memorySuffices(available / 16 * 15));
}

TEST(Heap, WithoutADescriptorLeftItTakesWhatIsFree) {
    const int status = exitStatusOf([] {
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        const bool little = memorySuffices(hugeMessage);
        const bool all = memorySuffices(std::numeric_limits<std::uint64_t>::max() / 2);
        ::_exit(little && !all ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
}

TEST(Heap, TheQuestionItselfTakesNothing) {
    constexpr std::uint64_t asked = std::uint64_t{64} << 20U;
    ASSERT_TRUE(memorySuffices(asked));
    const std::size_t before = ownMemory("VmSize");
    for (int count = 0; count < 20; ++count) {
        EXPECT_TRUE(memorySuffices(asked));
    }
    EXPECT_LT(ownMemory("VmSize"), before + 10 * asked);
}

TEST(Heap, RequiredMemoryThatCannotBeHadIsAnException) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
#endif
    requireMemory(hugeMessage);
    EXPECT_THROW(requireMemory(std::size_t{1} << 62U), std::bad_alloc);
}

}  // namespace
}  // namespace corvane
