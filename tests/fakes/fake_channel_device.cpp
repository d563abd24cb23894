#include "tests/fakes/fake_channel_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace corvane {

SystemResult<DescriptorGuard> FakeChannelDevice::openSerial(const char* path) {
    note(std::string("open ") + path);
    if (openError != 0) {
        return SystemError{openError};
    }
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return SystemError{errno};
    }
    DescriptorGuard agentEnd(ends[0]);
    {
        const std::lock_guard lock(mutex_);
        hostEnds_.emplace_back(ends[1]);
    }
    opened_.notify_all();
    if (openAsDescriptorZero) {
        return DescriptorGuard(::dup2(agentEnd.borrow(), 0));
    }
    return agentEnd;
}

int FakeChannelDevice::claimExclusive(int /*descriptor*/) {
    note("claim");
    return claimError;
}

int FakeChannelDevice::clearStatusFlags(int /*descriptor*/) {
    note("clear flags");
    return clearFlagsError;
}

ssize_t FakeChannelDevice::receive(int descriptor, std::span<char> buffer, int patience) {
    pollfd waited{descriptor, POLLIN, 0};
    if (descriptor >= 0 && ::poll(&waited, 1, patience) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return ::read(descriptor, buffer.data(), buffer.size());
}

void FakeChannelDevice::send(int descriptor, std::span<const std::string_view> pieces) noexcept {
    note("send");
    std::vector<iovec> vectors;
    for (const std::string_view piece : pieces) {
        vectors.push_back({const_cast<char*>(piece.data()), piece.size()});  // NOLINT: only read
    }
    [[maybe_unused]] const ssize_t count =
        ::writev(descriptor, vectors.data(), static_cast<int>(vectors.size()));
}

void FakeChannelDevice::closeChannel(int descriptor) noexcept {
    ::close(descriptor);
}

std::vector<std::string> FakeChannelDevice::calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

void FakeChannelDevice::forgetCalls() {
    const std::lock_guard lock(mutex_);
    calls_.clear();
}

void FakeChannelDevice::note(std::string call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

DescriptorGuard FakeChannelDevice::takeHostEnd() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return !hostEnds_.empty(); });
    DescriptorGuard end = std::move(hostEnds_.front());
    hostEnds_.pop_front();
    return end;
}

}  // namespace corvane
