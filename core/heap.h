#pragma once

#include <cstddef>

namespace corvane {

/// Requests and responses from this size on leave the heap as small as they found it.
inline constexpr std::size_t largeMessage = 1024 * 1024;

/// Makes large buffers go back to the system when they are freed, whatever sizes came before: by
/// default the allocator takes ever larger ones from the heap and keeps them. See mallopt(3).
/// Called once, at start.
void keepHeapSmall() noexcept;

/// Gives what is free in the heap back to the system. See malloc_trim(3).
void trimHeap() noexcept;

}  // namespace corvane
