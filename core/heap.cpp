#include "core/heap.h"

#include <malloc.h>

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

}  // namespace corvane
