#pragma once

#include <cstdio>
#include <cstdlib>

namespace corvane {

/// Ends the process, so that the fuzzer keeps the input, when `holds` is false.
inline void check(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

}  // namespace corvane
