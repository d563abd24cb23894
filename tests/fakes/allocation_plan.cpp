#include "tests/fakes/allocation_plan.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include "tests/fakes/failing_allocations.h"

namespace corvane {

namespace {

// Other threads of a process under test are left alone.
thread_local long succeedingLeft = 0;
thread_local long failingLeft = 0;
std::atomic<long> live = 0;

}  // namespace

bool allocationFails() noexcept {
    if (failingLeft == 0) {
        return false;
    }
    if (succeedingLeft > 0) {
        --succeedingLeft;
        return false;
    }
    --failingLeft;
    errno = ENOMEM;
    return true;
}

void* countAllocated(void* memory) noexcept {
    live += memory != nullptr ? 1 : 0;
    return memory;
}

void countFreed(const void* memory) noexcept {
    live -= memory != nullptr ? 1 : 0;
}

void failAllocations(long succeeding, long failing) noexcept {
    succeedingLeft = succeeding;
    failingLeft = failing;
}

long stopFailingAllocations() noexcept {
    return std::exchange(failingLeft, 0);
}

long liveAllocations() noexcept {
    return live;
}

}  // namespace corvane
