#include "bench/peak_memory.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <stdexcept>

#include "tests/fakes/own_memory.h"

namespace corvane {

std::size_t measuredInChild(const std::function<std::size_t()>& measure) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const std::size_t figure = measure();
        const ssize_t written = ::write(ends[1], &figure, sizeof figure);
        ::_exit(written == sizeof figure ? 0 : 1);
    }
    ::close(ends[1]);
    std::size_t figure = 0;
    const ssize_t got = ::read(ends[0], &figure, sizeof figure);
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    if (got != sizeof figure) {
        throw std::runtime_error("the measured process failed");
    }
    return figure;
}

std::size_t peakExtraMemory(const std::function<void()>& prepare,
                            const std::function<void()>& action) {
    return measuredInChild([&] {
        prepare();
        std::ofstream("/proc/self/clear_refs") << "5" << std::flush;
        const std::size_t before = ownMemory("VmRSS");
        action();
        return ownMemory("VmHWM") - before;
    });
}

}  // namespace corvane
