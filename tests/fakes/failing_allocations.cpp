#include "tests/fakes/failing_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace corvane {

namespace {

// Other threads of a process under test are left alone.
thread_local long succeedingLeft = 0;
thread_local long failingLeft = 0;
std::atomic<long> live = 0;

bool allocationFails() noexcept {
    if (failingLeft == 0) {
        return false;
    }
    if (succeedingLeft > 0) {
        --succeedingLeft;
        return false;
    }
    --failingLeft;
    return true;
}

}  // namespace

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

// See [new.delete.single].
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*nothrow*/) noexcept {
    void* memory = corvane::allocationFails() ? nullptr : std::malloc(size);
    corvane::live += memory != nullptr ? 1 : 0;
    return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* memory = operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    corvane::live -= memory != nullptr ? 1 : 0;
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    corvane::live -= memory != nullptr ? 1 : 0;
    std::free(memory);
}
