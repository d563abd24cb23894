#include "tests/unit/platform/linux/silent_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <stdexcept>

namespace corvane {

SilentSocket::SilentSocket(Queue queue)
    : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    files_.path("silent").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(listener_.borrow(), generic, sizeof address) != 0 ||
        ::listen(listener_.borrow(), queue == Queue::full ? 0 : 16) != 0) {
        throw std::runtime_error("cannot listen at " + files_.path("silent"));
    }
    while (queue == Queue::full) {
        DescriptorGuard caller(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (::connect(caller.borrow(), generic, sizeof address) != 0) {
            return;
        }
        callers_.push_back(std::move(caller));
    }
}

void SilentSocket::stopListening() {
    listener_.closeNow();
}

}  // namespace corvane
