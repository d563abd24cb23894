#include "platform/linux/linux_channel_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/linux/virtio_port.h"

namespace corvane {
namespace {

/// More than any response has.
constexpr std::size_t piecesAtOnce = 16;

constexpr int serialOpenFlags = O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

ssize_t receiveFromAny(int descriptor, std::span<char> buffer, int patience) {
    for (;;) {
        // First, since a terminal may be set to let its reader go with nothing.
        pollfd waited{descriptor, POLLIN, 0};
        const int ready = ::poll(&waited, 1, patience);
        if (ready == 0) {
            errno = EAGAIN;
            return -1;
        }
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        // A wait that fails otherwise, for want of memory, is no end of the channel: whoever has
        // patience only gives memory back first, then channels block, and the read waits instead.
        if (ready < 0 && patience >= 0) {
            errno = EAGAIN;
            return -1;
        }
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        // Readiness may have been for nothing, or gone to another reader.
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        return count;
    }
}

/// Whether all of it is out.
bool sendAtOnce(int descriptor, std::span<const std::string_view> pieces) noexcept {
    std::array<iovec, piecesAtOnce> vectors;
    std::transform(pieces.begin(), pieces.end(), vectors.begin(), [](std::string_view piece) {
        return iovec{const_cast<char*>(piece.data()), piece.size()};  // NOLINT: only read
    });
    // EINTR says that a signal came before a single byte went out: the one write has not been
    // made yet. A signal that comes later makes a short count of it, which stays one.
    ssize_t count = 0;
    do {
        count = ::writev(descriptor, vectors.data(), static_cast<int>(pieces.size()));
    } while (count < 0 && errno == EINTR);
    std::size_t size = 0;
    for (const std::string_view piece : pieces) {
        size += piece.size();
    }
    return count >= 0 && static_cast<std::size_t>(count) == size;
}

void sendToAny(int descriptor, std::span<const std::string_view> pieces) noexcept {
    bool sent = true;
    while (sent && !pieces.empty()) {
        const std::size_t count = std::min(pieces.size(), piecesAtOnce);
        sent = sendAtOnce(descriptor, pieces.first(count));
        pieces = pieces.subspan(count);
    }
}

}  // namespace

struct LinuxChannelDevice::OpenPort {
    OpenPort(int descriptor, DescriptorGuard watch, dev_t portNumber)
        : number(portNumber), calls(descriptor, std::move(watch)), port(calls) {}

    dev_t number;
    DescriptorPortCalls calls;
    VirtioPort port;
    DescriptorGuard parkedDescriptor;  ///< held only while parked
};

LinuxChannelDevice::LinuxChannelDevice(std::string sysRoot) : sysRoot_(std::move(sysRoot)) {}

LinuxChannelDevice::~LinuxChannelDevice() = default;

SystemResult<DescriptorGuard> LinuxChannelDevice::openSerial(const char* path) {
    if (parked_ && isParked(path)) {
        return takeParked();
    }
    parked_.reset();

    struct stat status {};
    int descriptor = -1;
    do {
        descriptor = ::open(path, serialOpenFlags);
    } while (descriptor < 0 && errno == EINTR);
    DescriptorGuard opened(descriptor);
    if (opened.empty()) {
        return SystemError{errno};
    }
    if (::fstat(descriptor, &status) != 0) {
        return SystemError{errno};
    }
    if (S_ISCHR(status.st_mode) && isVirtioPort(status.st_rdev)) {
        return adoptPort(std::move(opened), status.st_rdev);
    }
    return opened;
}

/// Whether the port that is kept stands at the path. Where that cannot be told, for want of memory
/// or after a read error, it is taken to do so: closing the port would throw away what the next
/// host has sent.
bool LinuxChannelDevice::isParked(const char* path) const {
    struct stat status {};
    if (::stat(path, &status) != 0) {
        return errno == ENOMEM || errno == EIO;
    }
    return S_ISCHR(status.st_mode) && status.st_rdev == parked_->number;
}

DescriptorGuard LinuxChannelDevice::takeParked() {
    DescriptorGuard descriptor = std::move(parked_->parkedDescriptor);
    auto port = std::move(parked_);
    ports_[descriptor.borrow()] = std::move(port);
    return descriptor;
}

SystemResult<DescriptorGuard> LinuxChannelDevice::adoptPort(DescriptorGuard opened, dev_t number) {
    auto watch = DescriptorPortCalls::watch(opened.borrow());
    if (!watch.ok()) {
        return SystemError{watch.error()};
    }
    ports_[opened.borrow()] = std::make_unique<OpenPort>(opened.borrow(), watch.take(), number);
    return opened;
}

int LinuxChannelDevice::claimExclusive(int descriptor) {
    if (::ioctl(descriptor, TIOCEXCL) == 0) {
        return 0;
    }
    // A port knows no such request: its first open already keeps every other out, with EBUSY.
    return errno == ENOTTY && findPort(descriptor) != nullptr ? 0 : errno;
}

int LinuxChannelDevice::clearStatusFlags(int descriptor) {
    // A port never blocks by itself, since a blocked write would outlast its host; it is waited on.
    const int flags = findPort(descriptor) != nullptr ? O_NONBLOCK : 0;
    return ::fcntl(descriptor, F_SETFL, flags) == 0 ? 0 : errno;
}

ssize_t LinuxChannelDevice::receive(int descriptor, std::span<char> buffer, int patience) {
    if (descriptor < 0) {  // poll() would wait on it for ever
        errno = EBADF;
        return -1;
    }
    parked_.reset();
    OpenPort* const open = findPort(descriptor);
    return open != nullptr ? open->port.receive(buffer, patience)
                           : receiveFromAny(descriptor, buffer, patience);
}

void LinuxChannelDevice::send(int descriptor, std::span<const std::string_view> pieces) noexcept {
    if (descriptor < 0) {
        return;
    }
    parked_.reset();
    if (OpenPort* const open = findPort(descriptor)) {
        open->port.send(pieces);
    } else {
        sendToAny(descriptor, pieces);
    }
}

void LinuxChannelDevice::closeChannel(int descriptor) noexcept {
    if (descriptor < 0) {
        return;
    }
    auto entry = ports_.extract(descriptor);
    if (!entry.empty() && entry.mapped()->port.inputHasEnded()) {
        parked_ = std::move(entry.mapped());
        parked_->parkedDescriptor = DescriptorGuard(descriptor);
    } else {
        ::close(descriptor);
    }
}

LinuxChannelDevice::OpenPort* LinuxChannelDevice::findPort(int descriptor) const noexcept {
    const auto found = ports_.find(descriptor);
    return found == ports_.end() ? nullptr : found->second.get();
}

bool LinuxChannelDevice::isVirtioPort(dev_t number) const {
    const std::filesystem::path device = sysRoot_ + "/dev/char/" + std::to_string(major(number)) +
                                         ":" + std::to_string(minor(number));
    std::error_code error;
    return std::filesystem::read_symlink(device / "subsystem", error).filename() == "virtio-ports";
}

}  // namespace corvane
