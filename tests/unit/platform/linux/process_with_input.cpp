#include "tests/unit/platform/linux/process_with_input.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace corvane {

ProcessWithInput::ProcessWithInput(const std::function<int()>& findInput) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("no socket pair");
    }
    life_ = DescriptorGuard(ends[0]);
    const DescriptorGuard peer(ends[1]);
    id_ = ::fork();
    char byte = 0;
    if (id_ == 0) {
        ::close(life_.borrow());
        const int input = findInput();
        if (input < 0) {
            ::close(STDIN_FILENO);
        } else if (::dup2(input, STDIN_FILENO) < 0) {
            ::_exit(1);
        }
        const bool told = ::write(peer.borrow(), &byte, 1) == 1;
        ::_exit(told && ::read(peer.borrow(), &byte, 1) == 0 ? 0 : 1);
    }
    if (id_ < 0 || ::read(life_.borrow(), &byte, 1) != 1) {
        throw std::runtime_error("no process");
    }
}

ProcessWithInput::~ProcessWithInput() {
    collect();
}

void ProcessWithInput::end() {
    life_.closeNow();
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(id_), &ended, WEXITED | WNOWAIT);
}

void ProcessWithInput::collect() {
    life_.closeNow();
    if (!collected_) {
        ::waitpid(id_, nullptr, 0);
        collected_ = true;
    }
}

}  // namespace corvane
