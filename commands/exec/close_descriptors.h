#pragma once

#include <sys/resource.h>
#include <sys/syscall.h>

#include "commands/exec/system_call.h"

namespace corvane {

/// Closes the descriptors from `first` to `last`. See close_range(2).
[[gnu::always_inline]] inline void closeDescriptors(long first, long last) noexcept {
    if (first > last || systemCall(SYS_close_range, first, last) == 0) {
        return;
    }
    rlimit limit{};  // kernels before 5.9
    systemCall(SYS_prlimit64, 0, RLIMIT_NOFILE, 0, asArgument(&limit));
    for (long descriptor = first; descriptor <= last; ++descriptor) {
        if (static_cast<rlim_t>(descriptor) >= limit.rlim_cur) {
            return;
        }
        systemCall(SYS_close, descriptor);
    }
}

/// Closes every descriptor from `first` on but those of `kept`, in which -1 stands for none; sorts
/// `kept`. Makes bare system calls only.
[[gnu::always_inline]] inline void closeAllBut(int (&kept)[3], long first) noexcept {
    constexpr long beyondAll = 0xFFFFFFFF;
    for (int rounds = 0; rounds < 2; ++rounds) {
        for (int index = 0; index < 2; ++index) {
            if (kept[index] > kept[index + 1]) {
                const int smaller = kept[index + 1];
                kept[index + 1] = kept[index];
                kept[index] = smaller;
            }
        }
    }
    for (const int descriptor : kept) {
        if (descriptor >= first) {
            closeDescriptors(first, descriptor - 1L);
            first = descriptor + 1L;
        }
    }
    closeDescriptors(first, beyondAll);
}

}  // namespace corvane
