#pragma once

namespace corvane {

/// A system call without the C library around it: no errno, which the caller may share with another
/// thread, and no cancellation point. Numbers from <sys/syscall.h>, see syscall(2). Returns the
/// result, or the negated errno value. Any thread, and between clone(2) and execve(2).
[[gnu::always_inline]] inline long systemCall(long number, long first = 0, long second = 0,
                                              long third = 0, long fourth = 0) noexcept {
#if defined(__x86_64__) && defined(__LP64__)
    long result = number;
    asm volatile(
        "movq %[fourth], %%r10\n\t"
        "syscall"
        : "+a"(result)
        : "D"(first), "S"(second), "d"(third), [fourth] "r"(fourth)
        : "r10", "rcx", "r11", "memory");
    return result;
#elif defined(__aarch64__)
    long result = first;
    asm volatile(
        "mov x0, %[result]\n\t"
        "mov x1, %[second]\n\t"
        "mov x2, %[third]\n\t"
        "mov x3, %[fourth]\n\t"
        "mov x8, %[number]\n\t"
        "svc #0\n\t"
        "mov %[result], x0"
        : [result] "+r"(result)
        : [number] "r"(number), [second] "r"(second), [third] "r"(third), [fourth] "r"(fourth)
        : "x0", "x1", "x2", "x3", "x8", "memory", "cc");
    return result;
#else
#error "Write this processor's system call here: syscall(2), Architecture calling conventions."
#endif
}

/// The same for arguments that are addresses.
template <typename T>
[[gnu::always_inline]] inline long asArgument(T* address) noexcept {
    return reinterpret_cast<long>(address);
}

}  // namespace corvane
