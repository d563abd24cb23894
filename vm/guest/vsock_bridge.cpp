#include "vm/guest/vsock_bridge.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "vm/guest/bridge_frame.h"
#include "vm/guest/vsock_listener.h"

namespace corvane::vm {
namespace {

/// Bytes on their way out.
class Outgoing {
 public:
    bool isEmpty() const { return taken_ == bytes_.size(); }
    std::size_t size() const { return bytes_.size() - taken_; }
    void add(std::string_view bytes) { bytes_.append(bytes); }
    void clear() {
        bytes_.clear();
        taken_ = 0;
    }
    /// Writes what the descriptor takes now; false when it is broken.
    bool writeTo(int descriptor) {
        const ssize_t count = ::write(descriptor, bytes_.data() + taken_, size());
        if (count < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        taken_ += static_cast<std::size_t>(count);
        if (isEmpty()) {
            clear();
        }
        return true;
    }

 private:
    std::string bytes_;
    std::size_t taken_ = 0;
};

/// One listener or one connection. What the agent sends is taken only as fast as the host reads
/// it. What the host sends is held here without a limit, so that its orders get through.
class Bridge {
 public:
    explicit Bridge(int device) : device_(device) {}
    [[noreturn]] void run();

 private:
    void awaitHost() const;
    void readDevice();
    void obey(const Frame& frame);
    void startListening(const std::string& port);
    void acceptPeer();
    void readPeer();
    void writePeer();
    void say(FrameKind kind, std::string_view payload = {}) {
        toHost_.add(encodeFrame(kind, payload));
    }
    void endSession();
    void endConnection();
    static void close(int& descriptor) {
        if (descriptor >= 0) {
            ::close(std::exchange(descriptor, -1));
        }
    }

    static constexpr std::size_t toHostLimit = 262144;

    int device_;
    int listener_ = -1;
    int peer_ = -1;
    bool peerEnded_ = false;     // the agent's end has sent all
    bool hostFinished_ = false;  // the host has said so
    FrameReader fromHost_;
    Outgoing toHost_;
    Outgoing toPeer_;
};

/// While no host is there, a port is always readable: only its edges tell when one comes.
void Bridge::awaitHost() const {
    const int edges = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    if (edges < 0 || ::epoll_ctl(edges, EPOLL_CTL_ADD, device_, &event) != 0) {
        fail("epoll");
    }
    pollfd state{device_, POLLOUT, 0};
    while (::poll(&state, 1, 0) >= 0 && (state.revents & POLLHUP) != 0) {
        ::epoll_wait(edges, &event, 1, -1);
    }
    ::close(edges);
}

void Bridge::run() {
    awaitHost();
    for (;;) {
        const auto when = [](bool condition, int events) {
            return static_cast<short>(condition ? events : 0);
        };
        // A descriptor of -1 is passed over. A peer that has ended and gets nothing would only
        // report, again and again, that it has hung up.
        const bool readsPeer = !peerEnded_ && toHost_.size() < toHostLimit;
        const bool usesPeer = readsPeer || !toPeer_.isEmpty();
        std::array<pollfd, 3> polled{{
            {device_, static_cast<short>(POLLIN | when(!toHost_.isEmpty(), POLLOUT)), 0},
            {listener_, POLLIN, 0},
            {usesPeer ? peer_ : -1,
             static_cast<short>(when(readsPeer, POLLIN) | when(!toPeer_.isEmpty(), POLLOUT)), 0},
        }};
        if (::poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        if ((polled[2].revents & (POLLOUT | POLLERR | POLLHUP)) != 0 && !toPeer_.isEmpty()) {
            writePeer();
        }
        if ((polled[2].revents & (POLLIN | POLLERR | POLLHUP)) != 0 && readsPeer) {
            readPeer();
        }
        if ((polled[1].revents & POLLIN) != 0) {
            acceptPeer();
        }
        if ((polled[0].revents & POLLOUT) != 0 && !toHost_.writeTo(device_)) {
            fail("write to the port");
        }
        if ((polled[0].revents & (POLLIN | POLLHUP)) != 0) {
            readDevice();
        }
    }
}

void Bridge::readDevice() {
    std::array<char, largestPayload> buffer;
    const ssize_t count = ::read(device_, buffer.data(), buffer.size());
    if (count < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            fail("read from the port");
        }
        return;
    }
    if (count == 0) {
        endSession();
        toHost_.clear();
        fromHost_ = FrameReader();
        awaitHost();
        return;
    }
    fromHost_.add({buffer.data(), static_cast<std::size_t>(count)});
    while (const auto frame = fromHost_.next()) {
        obey(*frame);
    }
}

void Bridge::obey(const Frame& frame) {
    switch (frame.kind) {
        case FrameKind::listen:
            // First, so that an agent that has lost its host finds the next one.
            close(listener_);
            startListening(frame.payload);
            endConnection();
            break;
        case FrameKind::data:
            // Without a peer, or with one that is gone, the bytes go where a host's would.
            if (peer_ >= 0) {
                toPeer_.add(frame.payload);
            }
            break;
        case FrameKind::finish:
            hostFinished_ = true;
            writePeer();
            break;
        case FrameKind::close:
            endSession();
            say(FrameKind::closed);
            break;
        default:
            break;
    }
}

void Bridge::startListening(const std::string& port) {
    listener_ = listenOnVsock(static_cast<unsigned>(std::strtoul(port.c_str(), nullptr, 10)));
    if (listener_ < 0) {
        say(FrameKind::failed, std::strerror(errno));
    } else {
        say(FrameKind::listening);
    }
}

void Bridge::acceptPeer() {
    peer_ = acceptOn(listener_, SOCK_NONBLOCK);
    if (peer_ >= 0) {
        close(listener_);  // one connection, and nobody behind it
        say(FrameKind::accepted);
    }
}

void Bridge::readPeer() {
    std::array<char, largestPayload> buffer;
    const ssize_t count = ::recv(peer_, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        say(FrameKind::data, {buffer.data(), static_cast<std::size_t>(count)});
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        peerEnded_ = true;
        say(FrameKind::ended, count == 0 ? "" : std::strerror(errno));
    }
}

void Bridge::writePeer() {
    if (peer_ < 0) {
        return;
    }
    if (!toPeer_.isEmpty() && !toPeer_.writeTo(peer_)) {
        toPeer_.clear();  // nobody reads there any more
    }
    if (hostFinished_ && toPeer_.isEmpty()) {
        ::shutdown(peer_, SHUT_WR);
    }
}

void Bridge::endSession() {
    close(listener_);
    endConnection();
}

void Bridge::endConnection() {
    close(peer_);
    peerEnded_ = false;
    hostFinished_ = false;
    toPeer_.clear();
}

}  // namespace

void bridge(int device) {
    Bridge(device).run();
}

}  // namespace corvane::vm
