#pragma once

#include <cstddef>
#include <cstdint>

namespace corvane {

/// Requests and responses from this size on leave the heap as small as they found it. What is
/// smaller is transferred in numbers, each as large as the one before: memory fresh from the system
/// costs more than the transfer.
inline constexpr std::size_t hugeMessage = 4 * 1024 * 1024;

/// Makes buffers of `hugeMessage` and more go back to the system when they are freed, whatever
/// sizes came before, and keeps smaller ones until trimHeap(): by default the allocator takes ever
/// larger ones from the heap and keeps them. See mallopt(3). Called once, at start.
void limitHeap() noexcept;

/// Asks for large pages behind `size` bytes of untouched memory from `memory` on, where it is big
/// enough for some: filling it then takes fewer page faults. See madvise(2), MADV_HUGEPAGE.
void preferLargePages(void* memory, std::size_t size) noexcept;

/// Whether so much more memory can be had and filled now: the address space takes it, and the
/// machine has it available, with some left for others. See proc(5), MemAvailable. Less than
/// `hugeMessage` is not worth the question and taken to be there.
///
/// Asks the machine, not the control group: a limit on ours (cgroup v2, memory.max) is not known
/// here. What is said holds for the moment; an allocation may fail nonetheless. Any thread.
bool memorySuffices(std::uint64_t bytes) noexcept;

/// Throws std::bad_alloc unless so much can be allocated at this moment in one piece, for whoever
/// must know before he gives something up.
void requireMemory(std::size_t bytes);

/// Gives what is free in the heap back to the system. See malloc_trim(3).
void trimHeap() noexcept;

}  // namespace corvane
