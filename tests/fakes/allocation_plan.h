#pragma once

namespace corvane {

/// For the sources that replace the allocation functions: whether this allocation is one of those
/// that failAllocations() has said are to fail. errno is then ENOMEM. Counts it; call it once.
bool allocationFails() noexcept;

/// Counts what has been allocated, unless null, and returns it.
void* countAllocated(void* memory) noexcept;

/// Counts what is given back, unless null.
void countFreed(const void* memory) noexcept;

}  // namespace corvane
