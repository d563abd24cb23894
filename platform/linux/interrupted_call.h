#pragma once

#include <cerrno>

namespace corvane {

/// Makes a system call anew for as long as signals interrupt it (a negative result with EINTR).
/// Returns what it came to.
template <typename Call>
auto untilUninterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace corvane
