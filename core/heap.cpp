#include "core/heap.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "core/descriptor_guard.h"

namespace corvane {

namespace {

/// What nothing uses at all: less than could be had, but this needs no file. See sysinfo(2).
std::uint64_t freeMemory() noexcept {
    struct sysinfo machine {};
    ::sysinfo(&machine);
    return std::uint64_t{machine.freeram} * machine.mem_unit;
}

/// What the machine could give without swapping, in bytes. An agent that has run out of descriptors
/// must take what is free for it.
std::uint64_t availableMemory() noexcept {
    constexpr std::string_view name = "MemAvailable:";
    std::array<char, 1024> buffer;  // it is the third line
    const DescriptorGuard file(::open("/proc/meminfo", O_RDONLY | O_CLOEXEC));
    const ssize_t count = ::read(file.borrow(), buffer.data(), buffer.size());
    std::string_view text(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    const auto at = text.find(name);
    if (at == std::string_view::npos) {
        return freeMemory();
    }
    text.remove_prefix(at + name.size());
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    std::uint64_t kibibytes = 0;
    std::from_chars(text.data(), text.data() + text.size(), kibibytes);
    return kibibytes * 1024;
}

/// Tries it, since limits are many: of the address space, of the overcommitment, of the process.
bool addressSpaceSuffices(std::uint64_t bytes) noexcept {
    void* const memory =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    ::munmap(memory, bytes);
    return true;
}

}  // namespace

#ifdef __GLIBC__

void limitHeap() noexcept {
    constexpr int never = std::numeric_limits<int>::max();  // but by trimHeap()
    ::mallopt(M_MMAP_THRESHOLD, hugeMessage);               // setting it stops its growth
    ::mallopt(M_TRIM_THRESHOLD, never);
}

void trimHeap() noexcept {
    ::malloc_trim(0);
}

#else

void limitHeap() noexcept {}
void trimHeap() noexcept {}

#endif

void requireMemory(std::size_t bytes) {
    // As functions: a new-expression that nothing comes of may be left out by the compiler.
    ::operator delete(::operator new(bytes));
}

void preferLargePages(void* memory, std::size_t size) noexcept {
    constexpr std::size_t largePage = 2 * 1024 * 1024;  // on x86-64 and most of arm64
    if (void* start = std::align(largePage, largePage, memory, size)) {
        ::madvise(start, size - size % largePage, MADV_HUGEPAGE);
    }
}

bool memorySuffices(std::uint64_t bytes) noexcept {
    if (bytes < hugeMessage) {
        return true;
    }
    const std::uint64_t available = availableMemory();
    return bytes <= available - available / 8 && addressSpaceSuffices(bytes);
}

}  // namespace corvane
