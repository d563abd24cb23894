// The C library's allocation functions, and with them C++'s and those of everything that the C
// library itself allocates. See malloc(3) and "Replacing malloc" in glibc's manual.

#include <errno.h>
#include <malloc.h>

#include <cstddef>
#include <cstdlib>

#include "tests/fakes/allocation_plan.h"

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming): glibc's own, by the
// names under which it keeps them.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): glibc's are reserved names.
extern "C" {

void* malloc(std::size_t size) {
    return corvane::allocationFails() ? nullptr : corvane::countAllocated(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size) {
    return corvane::allocationFails() ? nullptr
                                      : corvane::countAllocated(__libc_calloc(count, size));
}

void* realloc(void* memory, std::size_t size) {
    if (corvane::allocationFails()) {
        return nullptr;
    }
    void* const moved = __libc_realloc(memory, size);
    return memory == nullptr ? corvane::countAllocated(moved) : moved;
}

void* memalign(std::size_t alignment, std::size_t size) {
    return corvane::allocationFails() ? nullptr
                                      : corvane::countAllocated(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

void free(void* memory) {
    corvane::countFreed(memory);
    __libc_free(memory);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
