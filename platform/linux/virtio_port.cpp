#include "platform/linux/virtio_port.h"

#include <cerrno>

namespace corvane {

namespace {

ssize_t silence() {
    errno = EAGAIN;
    return -1;
}

/// How long the notice of a host may take. It is handled by a kernel thread that is woken before
/// the host's bytes are there, so that this is ample; a host that does come ends the wait at once.
constexpr int noticeLimit = 1000;  // milliseconds

}  // namespace

ssize_t VirtioPort::receive(std::span<char> buffer, int patience) {
    inputHasEnded_ = false;
    for (;;) {
        // A host is seen before it is waited for: it may leave without a word meanwhile.
        const bool wasSeen = host_ == Host::seen;
        const PortCalls::InputState input = calls_.waitForInput(wasSeen ? patience : 0);
        const bool hostIsThere = input != PortCalls::InputState::noHost;
        if (hostIsThere) {
            host_ = Host::seen;
        }
        if (input == PortCalls::InputState::silent) {
            if (wasSeen) {
                return silence();
            }
            continue;
        }
        const ssize_t count = calls_.read(buffer);
        if (count > 0) {
            // Bytes prove a host, even one that we never see: its leaving is an end to be told.
            if (!hostIsThere && host_ != Host::gone) {
                host_ = Host::heard;
            }
            return count;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno != EAGAIN) {
            return -1;
        }
        if (count == 0 && host_ != Host::absent) {
            if (host_ == Host::heard && noticeMayHaveCome()) {
                continue;
            }
            host_ = Host::absent;
            inputHasEnded_ = true;
            return 0;
        }
        // Nobody is there. What happened since the read is not missed: the watch remembers it.
        switch (calls_.waitForChange(patience)) {
            case PortCalls::Change::happened:
                break;
            case PortCalls::Change::none:
                return silence();
            case PortCalls::Change::failed:
                return -1;
        }
    }
}

void VirtioPort::send(std::span<const std::string_view> pieces) {
    bool begun = false;
    for (const std::string_view piece : pieces) {
        if (!sendPiece(piece, begun)) {
            return;
        }
        begun = begun || !piece.empty();
    }
}

/// False when the host has left, or the device refuses.
bool VirtioPort::sendPiece(std::string_view bytes, bool begun) {
    while (!bytes.empty()) {
        if (!hostTakesOutput(begun)) {
            return false;
        }
        const ssize_t count = calls_.write(bytes);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            begun = true;
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            // The kernel says 0 when the device refuses a piece for good: trying again would spin.
            return false;
        }
    }
    return true;
}

/// A host that is not shown any more has left in the middle of what has `begun`. Before that it may
/// be the one before that has left: its notice, too, may come after the next host's bytes.
bool VirtioPort::hostTakesOutput(bool begun) {
    for (;;) {
        const PortCalls::OutputState state = calls_.waitForOutput();
        if (state != PortCalls::OutputState::hostGone) {
            return state == PortCalls::OutputState::ready;
        }
        const bool mayStillCome = host_ == Host::seen || host_ == Host::heard;
        if (begun || !mayStillCome || !noticeMayHaveCome()) {
            return false;
        }
    }
}

/// Waits for the notice of a host that is not shown. False when it has left; it is not waited for
/// again.
bool VirtioPort::noticeMayHaveCome() {
    if (calls_.waitForChange(noticeLimit) == PortCalls::Change::happened) {
        return true;
    }
    host_ = Host::gone;
    return false;
}

}  // namespace corvane
