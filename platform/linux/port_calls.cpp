#include "platform/linux/port_calls.h"

#include <fcntl.h>
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

int DescriptorPortCalls::statusFlags() {
    return ::fcntl(descriptor_, F_GETFL);
}

int DescriptorPortCalls::setStatusFlags(int flags) {
    return ::fcntl(descriptor_, F_SETFL, flags);
}

bool DescriptorPortCalls::hostIsThere() {
    pollfd asked{descriptor_, POLLIN | POLLOUT, 0};
    return ::poll(&asked, 1, 0) >= 0 && (asked.revents & (POLLHUP | POLLNVAL)) == 0;
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
