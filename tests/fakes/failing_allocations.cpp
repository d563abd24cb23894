#include <cstdlib>
#include <new>

#include "tests/fakes/allocation_plan.h"

// See [new.delete.single].
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*nothrow*/) noexcept {
    return corvane::allocationFails() ? nullptr : corvane::countAllocated(std::malloc(size));
}
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* memory = operator new(size, std::nothrow);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    corvane::countFreed(memory);
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    corvane::countFreed(memory);
    std::free(memory);
}
