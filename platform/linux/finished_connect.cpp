#include "platform/linux/finished_connect.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>

namespace corvane {
namespace {

int outcomeOfConnect(int descriptor) {
    pollfd waited{descriptor, POLLOUT, 0};
    while (::poll(&waited, 1, -1) < 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

}  // namespace

int connectToTheEnd(int descriptor, const sockaddr* address, socklen_t length) {
    // A signal in the middle of a blocking connect() leaves TCP connecting but makes vsock give
    // the attempt up, after which poll() calls the unconnected socket writable and SO_ERROR is 0:
    // a failure that looks like success. A non-blocking connect() cannot be interrupted.
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        return errno;
    }
    int error = ::connect(descriptor, address, length) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        error = outcomeOfConnect(descriptor);
    }
    if (::fcntl(descriptor, F_SETFL, flags) < 0 && error == 0) {
        return errno;
    }
    return error;
}

}  // namespace corvane
