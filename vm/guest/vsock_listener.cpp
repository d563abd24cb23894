#include "vm/guest/vsock_listener.h"

#include <errno.h>
#include <linux/vm_sockets.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace corvane::vm {

int listenOnVsock(unsigned port) {
    const int listener = ::socket(AF_VSOCK, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) {
        return -1;
    }
    sockaddr_vm address{};
    address.svm_family = AF_VSOCK;
    address.svm_cid = VMADDR_CID_ANY;
    address.svm_port = port;
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 1) != 0) {
        const int error = errno;
        ::close(listener);
        errno = error;
        return -1;
    }
    return listener;
}

int acceptOn(int listener, int flags) {
    return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | flags);
}

void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

}  // namespace corvane::vm
