#pragma once

#include <cerrno>
#include <optional>

#include "core/system_result.h"

namespace corvane {

/// Whether a lookup that found nothing and left this in errno says "there is no such entry". The
/// name services do not agree on a value, see getpwnam(3); any other one tells of a failure.
constexpr bool meansNoEntry(int error) noexcept {
    switch (error) {
        case 0:
        case ENOENT:
        case ESRCH:
        case EBADF:
        case EPERM:
            return true;
        default:
            return false;
    }
}

/// The id of an entry. `find` is a lookup such as getpwnam(3): it returns the entry, or a null
/// pointer with errno set, or left alone when there is none. It is repeated when a signal
/// interrupts it. `id` is the entry's member.
template <typename Entry, typename Id, typename Find>
SystemResult<std::optional<Id>> lookUp(Id Entry::*id, Find find) {
    for (;;) {
        errno = 0;
        if (const Entry* entry = find()) {
            return std::optional<Id>(entry->*id);
        }
        const int error = errno;
        if (meansNoEntry(error)) {
            return std::optional<Id>();
        }
        if (error != EINTR) {
            return SystemError{error};
        }
    }
}

}  // namespace corvane
