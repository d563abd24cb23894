#include "platform/linux/virtio_port.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

namespace corvane {

ssize_t VirtioPort::receive(std::span<char> buffer) {
    inputHasEnded_ = false;
    for (;;) {
        if (calls_.hostIsThere()) {
            hostConnected_ = true;
        }
        const ssize_t count = calls_.read(buffer);
        if (count > 0) {
            // Bytes prove a host, even one that has left before we could see it: its leaving is
            // still an end to be told.
            hostConnected_ = true;
            return count;
        }
        if (count == 0 && std::exchange(hostConnected_, false)) {
            inputHasEnded_ = true;
            return 0;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno != EAGAIN) {
            return -1;
        }
        // Nobody is there. What happened since the read is not missed: the watch remembers it.
        if (!calls_.waitForChange()) {
            return -1;
        }
    }
}

void VirtioPort::send(std::string_view bytes) {
    // The host may leave between a wait and the write after it, and a blocking write would then
    // hold the agent until another host connects.
    const int flags = calls_.statusFlags();
    if (flags < 0 || calls_.setStatusFlags(flags | O_NONBLOCK) < 0) {
        return;
    }
    sendPieces(bytes);
    calls_.setStatusFlags(flags);
}

void VirtioPort::sendPieces(std::string_view bytes) {
    while (!bytes.empty()) {
        if (calls_.waitForOutput() != PortCalls::OutputState::ready) {
            return;
        }
        const ssize_t count = calls_.write(bytes);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            // The kernel says 0 when the device refuses a piece for good: trying again would spin.
            return;
        }
    }
}

}  // namespace corvane
