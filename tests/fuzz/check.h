#pragma once

#include <cstdio>
#include <cstdlib>

#include "tests/fuzz/real_standard_error.h"

namespace corvane {

/// Ends the process, so that the fuzzer keeps the input, when `holds` is false.
inline void check(bool holds, const char* what) {
    if (!holds) {
        ::dprintf(realStandardError(), "does not hold: %s\n", what);
        std::abort();
    }
}

}  // namespace corvane
