// Plays the host inside the guest: a listener that the loopback transport reaches as cid 2.
//
//   vsock-host exchange PORT REQUESTS ANSWERS
//
// Returns as soon as it listens; a child of it goes on in the background. The child accepts one
// connection, sends the lines of REQUESTS one by one, each after the answer to the one before,
// writes the answers to ANSWERS (a named pipe serves: its reader then waits for the end of the
// exchange) and vanishes, connection, listener and all.
//
//   vsock-host send PORT FILE
//   vsock-host receive PORT FILE
//
// Return as soon as they listen, too. The child accepts one connection, sends what is in FILE, or
// stores in FILE (a named pipe serves again) all that comes, and vanishes.
//
//   vsock-host bridge DEVICE
//
// Returns at once; a child of it serves the virtio port DEVICE for ever: the real host, at the
// other end of that port, says where to listen and takes part in the connection (vsock_bridge.h).
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "vm/guest/vsock_bridge.h"
#include "vm/guest/vsock_listener.h"

namespace {

using corvane::vm::fail;

void writeAll(int destination, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(destination, bytes.data(), bytes.size());
        if (count <= 0) {
            fail("write");
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
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

int listenOn(const char* port) {
    const int listener =
        corvane::vm::listenOnVsock(static_cast<unsigned>(std::strtoul(port, nullptr, 10)));
    if (listener < 0) {
        fail("listen");
    }
    return listener;
}

int acceptOne(int listener) {
    const int connection = corvane::vm::acceptOn(listener);
    if (connection < 0) {
        fail("accept");
    }
    ::close(listener);  // one host, and nobody behind it
    return connection;
}

int openFile(const char* path, int flags) {
    const int file = ::open(path, flags | O_CLOEXEC, 0600);
    if (file < 0) {
        fail(path);
    }
    return file;
}

void copyAll(int source, int destination) {
    std::array<char, 262144> buffer;
    ssize_t count = 0;
    while ((count = ::read(source, buffer.data(), buffer.size())) > 0) {
        writeAll(destination, {buffer.data(), static_cast<std::size_t>(count)});
    }
    if (count < 0) {
        fail("read");
    }
}

void exchange(int listener, const char* requestsPath, const char* answersPath) {
    const int connection = acceptOne(listener);
    std::ifstream requests(requestsPath);
    std::string answers;
    for (std::string line; std::getline(requests, line);) {
        writeAll(connection, line + '\n');
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
    ::signal(SIGPIPE, SIG_IGN);
    if (mode == "exchange" && count == 5) {
        const int listener = listenOn(words[2]);
        if (goOnInTheBackground()) {
            exchange(listener, words[3], words[4]);
        }
        return 0;
    }
    if (mode == "send" && count == 4) {
        const int listener = listenOn(words[2]);
        if (goOnInTheBackground()) {
            const int connection = acceptOne(listener);
            copyAll(openFile(words[3], O_RDONLY), connection);
        }
        return 0;
    }
    if (mode == "receive" && count == 4) {
        const int listener = listenOn(words[2]);
        if (goOnInTheBackground()) {
            const int connection = acceptOne(listener);
            copyAll(connection, openFile(words[3], O_WRONLY | O_CREAT | O_TRUNC));
        }
        return 0;
    }
    if (mode == "bridge" && count == 3) {
        const int device = openFile(words[2], O_RDWR | O_NONBLOCK);
        if (goOnInTheBackground()) {
            corvane::vm::bridge(device);
        }
        return 0;
    }
    std::fputs(
        "usage: vsock-host exchange PORT REQUESTS ANSWERS\n"
        "       vsock-host send|receive PORT FILE\n"
        "       vsock-host bridge DEVICE\n",
        stderr);
    return 2;
}
