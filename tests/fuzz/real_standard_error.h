#pragma once

#include <unistd.h>

#include <cstdint>

// There with sanitizers only. See <sanitizer/common_interface_defs.h>.
extern "C" [[gnu::weak]] void __sanitizer_set_report_fd(void* descriptor);  // NOLINT

namespace corvane {

/// A descriptor of the standard error that the process was started with, for targets that put
/// something else in its place: of them it must be called before. A sanitizer's report goes there,
/// too, from then on.
inline int realStandardError() {
    static const int descriptor = [] {
        const int duplicate = ::dup(STDERR_FILENO);
        if (__sanitizer_set_report_fd != nullptr) {
            __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t{duplicate}));  // NOLINT
        }
        return duplicate;
    }();
    return descriptor;
}

}  // namespace corvane
