// Plays the host inside the guest: a listener that the loopback transport reaches as cid 2.
//
//   vsock-host exchange PORT REQUESTS ANSWERS
//
// Returns as soon as it listens; a child of it goes on in the background. The child accepts one
// connection, sends the lines of REQUESTS one by one, each after the answer to the one before,
// writes the answers to ANSWERS (a named pipe serves: its reader then waits for the end of the
// exchange) and vanishes, connection, listener and all.
#include <linux/vm_sockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int listenOn(unsigned port) {
    const int listener = ::socket(AF_VSOCK, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) {
        fail("socket");
    }
    sockaddr_vm address{};
    address.svm_family = AF_VSOCK;
    address.svm_cid = VMADDR_CID_ANY;
    address.svm_port = port;
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("bind");
    }
    if (::listen(listener, 1) != 0) {
        fail("listen");
    }
    return listener;
}

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
    const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
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

}  // namespace

int main(int count, char** words) {
    if (count != 5 || std::strcmp(words[1], "exchange") != 0) {
        std::fputs("usage: vsock-host exchange PORT REQUESTS ANSWERS\n", stderr);
        return 2;
    }
    const int listener = listenOn(static_cast<unsigned>(std::strtoul(words[2], nullptr, 10)));
    const pid_t child = ::fork();
    if (child < 0) {
        fail("fork");
    }
    if (child == 0) {
        exchange(listener, words[3], words[4]);
    }
    return 0;
}
