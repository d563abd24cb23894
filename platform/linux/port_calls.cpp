#include "platform/linux/port_calls.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

namespace corvane {

SystemResult<DescriptorGuard> DescriptorPortCalls::watch(int descriptor) {
    DescriptorGuard watch(::epoll_create1(EPOLL_CLOEXEC));
    if (watch.empty()) {
        return SystemError{errno};
    }
    // OUT is there for a host that connects and sends nothing: that is all it shows as.
    epoll_event interest{};
    interest.events = EPOLLIN | EPOLLOUT | EPOLLHUP | EPOLLET;
    if (::epoll_ctl(watch.borrow(), EPOLL_CTL_ADD, descriptor, &interest) != 0) {
        return SystemError{errno};
    }
    return watch;
}

ssize_t DescriptorPortCalls::read(std::span<char> buffer) {
    return ::read(descriptor_, buffer.data(), buffer.size());
}

ssize_t DescriptorPortCalls::write(std::string_view bytes) {
    return ::write(descriptor_, bytes.data(), bytes.size());
}

PortCalls::InputState DescriptorPortCalls::waitForInput(int limit) {
    pollfd waited{descriptor_, POLLIN, 0};
    int count = 0;
    do {
        count = ::poll(&waited, 1, limit);
    } while (count < 0 && errno == EINTR);
    if (count == 0) {
        return InputState::silent;
    }
    const bool hostIsThere = count > 0 && (waited.revents & (POLLHUP | POLLNVAL)) == 0;
    return hostIsThere ? InputState::ready : InputState::noHost;
}

PortCalls::OutputState DescriptorPortCalls::waitForOutput() {
    pollfd waited{descriptor_, POLLOUT, 0};
    while (::poll(&waited, 1, -1) < 0) {
        if (errno != EINTR) {
            return OutputState::ready;
        }
    }
    if ((waited.revents & POLLOUT) != 0) {
        return OutputState::ready;
    }
    return (waited.revents & POLLHUP) != 0 ? OutputState::hostGone : OutputState::failed;
}

PortCalls::Change DescriptorPortCalls::waitForChange(int limit) {
    epoll_event event{};
    const int count = ::epoll_wait(watch_.borrow(), &event, 1, limit);
    if (count == 0) {
        return Change::none;
    }
    return count > 0 || errno == EINTR ? Change::happened : Change::failed;
}

}  // namespace corvane
