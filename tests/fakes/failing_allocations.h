#pragma once

namespace corvane {

/// For programs that replace the allocation functions by linking failing_allocations.cpp: from now
/// on `succeeding` allocations succeed, the `failing` ones after them fail, and then all succeed.
/// One thread.
void failAllocations(long succeeding, long failing) noexcept;

/// All allocations succeed from now on. Returns how many of those that were to fail have not.
long stopFailingAllocations() noexcept;

}  // namespace corvane
