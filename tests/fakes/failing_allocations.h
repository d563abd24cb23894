#pragma once

namespace corvane {

/// For programs that replace the allocation functions, either those of C++ by linking
/// failing_allocations.cpp, or those of the C library, and thereby C++'s as well, by linking
/// failing_c_allocations.cpp, which no sanitizer bears. From now on `succeeding` allocations
/// succeed, the `failing` ones after them fail, and then all succeed. One thread.
void failAllocations(long succeeding, long failing) noexcept;

/// All allocations succeed from now on. Returns how many of those that were to fail have not.
long stopFailingAllocations() noexcept;

/// How many allocations have been made and not been given back, on all threads.
long liveAllocations() noexcept;

}  // namespace corvane
