#pragma once

#include <cstddef>

namespace corvane {

/// Requests and responses from this size on leave the heap as small as they found it.
inline constexpr std::size_t largeMessage = 1024 * 1024;

/// Makes large buffers go back to the system when they are freed, whatever sizes came before: by
/// default the allocator takes ever larger ones from the heap and keeps them. See mallopt(3).
/// Called once, at start.
void keepHeapSmall() noexcept;

/// Asks for large pages behind `size` bytes of untouched memory from `memory` on, where it is big
/// enough for some: filling it then takes fewer page faults. See madvise(2), MADV_HUGEPAGE.
void preferLargePages(void* memory, std::size_t size) noexcept;

/// Gives what is free in the heap back to the system. See malloc_trim(3).
void trimHeap() noexcept;

}  // namespace corvane
