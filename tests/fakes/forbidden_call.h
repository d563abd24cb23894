#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <array>
#include <cstddef>

namespace corvane {

/// Makes a system call fail with `error` from now on, in this process and its children, for good:
/// when its first argument is `firstArgument`, or always (-1). See seccomp(2).
inline void forbidSystemCall(long number, int error, long firstArgument = -1) {
    const auto call = static_cast<unsigned>(number);
    const auto first = static_cast<unsigned>(firstArgument);
    const auto failure = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
    const unsigned char skipped = firstArgument < 0 ? 2 : 0;  // the look at the argument
    std::array<sock_filter, 7> filter{{
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 4, call},
        {BPF_JMP | BPF_JA, 0, 0, skipped},
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, args)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, first},
        {BPF_RET | BPF_K, 0, 0, failure},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    }};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

}  // namespace corvane
