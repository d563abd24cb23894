// Plays the host inside the guest: a listener that the loopback transport reaches as cid 2.
//
//   vsock-host exchange PORT REQUESTS ANSWERS
//
// Returns as soon as it listens; a child of it goes on in the background. The child accepts one
// connection, sends the lines of REQUESTS one by one, each after the answer to the one before,
// writes the answers to ANSWERS (a named pipe serves: its reader then waits for the end of the
// exchange) and vanishes, connection, listener and all.
//
//   vsock-host bridge DEVICE
//
// Returns at once; a child of it serves the virtio port DEVICE for ever: the real host, at the
// other end of that port, says where to listen and takes part in the connection (vsock_bridge.h).
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "vm/guest/vsock_bridge.h"
#include "vm/guest/vsock_listener.h"

namespace {

using corvane::vm::fail;

void sendAll(int connection, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count =
            ::send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            fail("send");
        }
        sent += static_cast<std::size_t>(count);
    }
}

std::string receiveLine(int connection) {
    std::string line;
    char byte = 0;
    while (::recv(connection, &byte, 1, 0) == 1) {
        line.push_back(byte);
        if (byte == '\n') {
            return line;
        }
    }
    fail("recv");
}

void exchange(int listener, const char* requestsPath, const char* answersPath) {
    const int connection = corvane::vm::acceptOn(listener);
    if (connection < 0) {
        fail("accept");
    }
    ::close(listener);  // one host, and nobody behind it
    std::ifstream requests(requestsPath);
    std::string answers;
    for (std::string line; std::getline(requests, line);) {
        sendAll(connection, line + '\n');
        answers += receiveLine(connection);
    }
    std::ofstream(answersPath) << answers;
}

/// True in the child.
bool goOnInTheBackground() {
    const pid_t child = ::fork();
    if (child < 0) {
        fail("fork");
    }
    return child == 0;
}

}  // namespace

int main(int count, char** words) {
    const std::string_view mode = count > 1 ? words[1] : "";
    if (mode == "exchange" && count == 5) {
        const int listener =
            corvane::vm::listenOnVsock(static_cast<unsigned>(std::strtoul(words[2], nullptr, 10)));
        if (listener < 0) {
            fail("listen");
        }
        if (goOnInTheBackground()) {
            exchange(listener, words[3], words[4]);
        }
        return 0;
    }
    if (mode == "bridge" && count == 3) {
        const int device = ::open(words[2], O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (device < 0) {
            fail(words[2]);
        }
        ::signal(SIGPIPE, SIG_IGN);
        if (goOnInTheBackground()) {
            corvane::vm::bridge(device);
        }
        return 0;
    }
    std::fputs(
        "usage: vsock-host exchange PORT REQUESTS ANSWERS\n"
        "       vsock-host bridge DEVICE\n",
        stderr);
    return 2;
}
