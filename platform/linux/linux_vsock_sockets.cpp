#include "platform/linux/linux_vsock_sockets.h"

#include "platform/linux/finished_connect.h"

namespace corvane {

sockaddr_vm vsockAddress(std::uint32_t contextId, std::uint32_t port) noexcept {
    sockaddr_vm address{};  // the kernel refuses reserved bytes that are not 0
    address.svm_family = AF_VSOCK;
    address.svm_cid = contextId;
    address.svm_port = port;
    return address;
}

SystemResult<DescriptorGuard> LinuxVsockSockets::createStream() {
    DescriptorGuard created(::socket(AF_VSOCK, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (created.empty()) {
        return SystemError{errno};
    }
    return created;
}

int LinuxVsockSockets::connectTo(int descriptor, std::uint32_t contextId, std::uint32_t port) {
    const sockaddr_vm address = vsockAddress(contextId, port);
    return connectToTheEnd(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

}  // namespace corvane
