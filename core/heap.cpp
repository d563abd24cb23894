#include "core/heap.h"

#include <malloc.h>
#include <sys/mman.h>

#include <cstdint>
#include <memory>

namespace corvane {

#ifdef __GLIBC__

void keepHeapSmall() noexcept {
    constexpr int threshold = 128 * 1024;  // glibc's initial value; setting it stops its growth
    ::mallopt(M_MMAP_THRESHOLD, threshold);
    ::mallopt(M_TRIM_THRESHOLD, threshold);
}

void trimHeap() noexcept {
    ::malloc_trim(0);
}

#else

void keepHeapSmall() noexcept {}
void trimHeap() noexcept {}

#endif

void preferLargePages(void* memory, std::size_t size) noexcept {
    constexpr std::size_t largePage = 2 * 1024 * 1024;  // on x86-64 and most of arm64
    if (void* start = std::align(largePage, largePage, memory, size)) {
        ::madvise(start, size - size % largePage, MADV_HUGEPAGE);
    }
}

}  // namespace corvane
