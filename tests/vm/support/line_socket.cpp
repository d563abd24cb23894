#include "tests/vm/support/line_socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>
#include <system_error>

namespace corvane::vm {
namespace {

[[noreturn]] void throwError(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw std::length_error("too long for a socket: " + path);
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

Descriptor makeSocket() {
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made.isOpen()) {
        throwError("socket");
    }
    return made;
}

/// Which of the events have come.
short await(int descriptor, short events, Limit limit, const char* what) {
    pollfd waited{descriptor, events, 0};
    int result = 0;
    do {
        result = ::poll(&waited, 1, static_cast<int>(limit.count()));
    } while (result < 0 && errno == EINTR);
    if (result == 0) {
        throw HangError(what);
    }
    return waited.revents;
}

}  // namespace

LineSocket::LineSocket(const std::string& path) : socket_(makeSocket()) {
    const sockaddr_un address = addressOf(path);
    if (::connect(socket_.borrow(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        throwError("connect to " + path);
    }
}

LineSocket LineSocket::acceptFrom(const Descriptor& listener, Limit limit) {
    await(listener.borrow(), POLLIN, limit, "nobody connects");
    LineSocket made;
    made.socket_ = Descriptor(::accept4(listener.borrow(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!made.isConnected()) {
        throwError("accept");
    }
    return made;
}

void LineSocket::send(std::string_view bytes, Limit limit) {
    while (!bytes.empty()) {
        await(socket_.borrow(), POLLOUT, limit, "the peer takes no more bytes");
        sendSome(bytes);
    }
}

void LineSocket::sendWhileReceiving(std::string_view bytes, Limit limit) {
    while (!bytes.empty()) {
        const short events =
            await(socket_.borrow(), POLLIN | POLLOUT, limit, "the peer takes no more bytes");
        if ((events & POLLIN) != 0) {
            receiveMore(limit);
        }
        if ((events & POLLOUT) != 0) {
            sendSome(bytes);
        }
    }
}

std::string LineSocket::receiveLine(Limit limit) {
    std::size_t searched = 0;
    std::size_t end = 0;
    while ((end = received_.find('\n', searched)) == std::string::npos) {
        searched = received_.size();
        receiveMore(limit);
    }
    std::string line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return line;
}

std::string LineSocket::receive(std::size_t count, Limit limit) {
    while (received_.size() < count) {
        receiveMore(limit);
    }
    std::string bytes = received_.substr(0, count);
    received_.erase(0, count);
    return bytes;
}

std::string LineSocket::receiveSome(Limit limit) {
    if (received_.empty()) {
        receiveMore(limit);
    }
    return std::exchange(received_, {});
}

std::string LineSocket::receiveAll(Limit limit) {
    try {
        for (;;) {
            receiveMore(limit);
        }
    } catch (const EndOfStream&) {
        return std::exchange(received_, {});
    }
}

void LineSocket::finishSending() {
    if (::shutdown(socket_.borrow(), SHUT_WR) != 0) {
        throwError("shutdown");
    }
}

void LineSocket::disconnect() {
    socket_.close();
    received_.clear();
}

void LineSocket::sendSome(std::string_view& bytes) {
    const ssize_t count =
        ::send(socket_.borrow(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR) {
        throwError("send");
    }
    bytes.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
}

void LineSocket::receiveMore(Limit limit) {
    await(socket_.borrow(), POLLIN, limit, "nothing was received");
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(socket_.borrow(), buffer.data(), buffer.size(), 0);
    if (count == 0) {
        throw EndOfStream("the peer ended the connection");
    }
    if (count < 0) {
        throwError("recv");
    }
    received_.append(buffer.data(), static_cast<std::size_t>(count));
}

Descriptor listenAt(const std::string& path) {
    Descriptor listener = makeSocket();
    const sockaddr_un address = addressOf(path);
    if (::bind(listener.borrow(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0 ||
        ::listen(listener.borrow(), 16) != 0) {
        throwError("listen at " + path);
    }
    return listener;
}

}  // namespace corvane::vm
