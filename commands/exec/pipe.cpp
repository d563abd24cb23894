#include "commands/exec/pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace corvane {

SystemResult<Pipe> makePipe() noexcept {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return SystemError{errno};
    }
    return Pipe{DescriptorGuard(ends[0]), DescriptorGuard(ends[1])};
}

}  // namespace corvane
