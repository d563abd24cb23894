#include "tests/unit/platform/linux/private_mounts.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace corvane {
namespace {

std::string failed(const std::string& what) {
    return what + ": " + std::generic_category().message(errno);
}

std::string mountOver(const std::vector<std::string>& folders) {
    if (::unshare(CLONE_NEWNS) != 0) {
        return failed("unshare");
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failed("making / private");
    }
    for (const std::string& folder : folders) {
        if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) != 0) {
            return failed("mounting on " + folder);
        }
    }
    return {};
}

std::string runGuarded(const std::function<std::string()>& body) {
    try {
        return body();
    } catch (const std::exception& exception) {
        return std::string("exception: ") + exception.what();
    }
}

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t count = 0; (count = ::read(descriptor, piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace

std::string withPrivateMounts(const std::vector<std::string>& folders,
                              const std::function<std::string()>& body) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return failed("pipe2");
    }
    const DescriptorGuard readEnd(ends[0]);
    DescriptorGuard writeEnd(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        return failed("fork");
    }
    if (child == 0) {
        std::string trouble = mountOver(folders);
        if (trouble.empty()) {
            trouble = runGuarded(body);
        }
        const ssize_t written = ::write(writeEnd.borrow(), trouble.data(), trouble.size());
        ::_exit(written == static_cast<ssize_t>(trouble.size()) ? 0 : 1);
    }
    writeEnd.closeNow();
    std::string trouble = readToEnd(readEnd.borrow());
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        trouble += " (child status " + std::to_string(status) + ")";
    }
    return trouble;
}

std::string whyNoPrivateMounts() {
    return withPrivateMounts({"/run"}, [] { return std::string(); });
}

DescriptorGuard bindDatagramSocket(const std::string& path) {
    DescriptorGuard socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(socket.borrow(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error(failed("bind to " + path));
    }
    return socket;
}

Datagram receiveDatagram(int socket) {
    std::string bytes(1U << 20U, '\0');
    iovec place{bytes.data(), bytes.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    if (count < 0) {
        throw std::runtime_error(failed("recvmsg"));
    }
    bytes.resize(static_cast<std::size_t>(count));
    Datagram datagram{std::move(bytes), DescriptorGuard()};
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message);
        header && header->cmsg_type == SCM_RIGHTS) {
        int passed = -1;
        std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
        datagram.passed = DescriptorGuard(passed);
    }
    return datagram;
}

bool hasDatagram(int socket) {
    pollfd asked{socket, POLLIN, 0};
    return ::poll(&asked, 1, 0) == 1;
}

}  // namespace corvane
