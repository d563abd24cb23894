#include "tests/unit/platform/linux/private_network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <net/if.h>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "core/descriptor_guard.h"

namespace corvane {
namespace {

[[noreturn]] void fail(const std::string& what, int error = errno) {
    throw std::system_error(error, std::generic_category(), what);
}

template <typename T>
std::string_view bytesOf(const T& structure) {
    return {reinterpret_cast<const char*>(&structure), sizeof(structure)};
}

/// A request to the kernel, put together from its structures. See rtnetlink(7).
class Request {
 public:
    template <typename Message>
    Request(int type, int flags, const Message& message) {
        header_.nlmsg_type = static_cast<std::uint16_t>(type);
        header_.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        append(bytesOf(message));
    }

    void add(int type, std::string_view content) {
        const rtattr attribute{static_cast<unsigned short>(RTA_LENGTH(content.size())),
                               static_cast<unsigned short>(type)};
        append(bytesOf(attribute));
        append(content);
    }

    /// A name, with the zero that ends it.
    void addText(int type, const std::string& text) { add(type, {text.c_str(), text.size() + 1}); }

    /// Attributes that `inside` adds stand in one of that type.
    void addNested(int type, const std::function<void()>& inside) {
        const std::size_t start = content_.size();
        add(type, {});
        inside();
        const rtattr whole{static_cast<unsigned short>(content_.size() - start),
                           static_cast<unsigned short>(type)};
        content_.replace(start, sizeof(whole), bytesOf(whole));
    }

    /// A structure without a type, in the middle of attributes.
    template <typename Message>
    void addBare(const Message& message) {
        append(bytesOf(message));
    }

    /// The kernel's answer: 0, or the error with which it refuses.
    int send() {
        const DescriptorGuard socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        header_.nlmsg_len = static_cast<std::uint32_t>(sizeof(header_) + content_.size());
        const std::string request = std::string(bytesOf(header_)) + content_;
        struct {
            nlmsghdr header;
            nlmsgerr error;
            std::array<char, 4096> rest;
        } answer{};
        if (::send(socket.borrow(), request.data(), request.size(), 0) < 0 ||
            ::recv(socket.borrow(), &answer, sizeof(answer), 0) < 0) {
            return errno;
        }
        return answer.header.nlmsg_type == NLMSG_ERROR ? -answer.error.error : EPROTO;
    }

 private:
    void append(std::string_view bytes) {
        content_ += bytes;
        content_.resize(NLMSG_ALIGN(content_.size()));
    }

    nlmsghdr header_{};
    std::string content_;
};

int indexOf(const std::string& interface) {
    const unsigned index = ::if_nametoindex(interface.c_str());
    if (index == 0) {
        fail(interface);
    }
    return static_cast<int>(index);
}

int tryInterface(const std::string& kind, const std::string& name, unsigned number) {
    Request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, ifinfomsg{});
    request.addText(IFLA_IFNAME, name);
    const std::array<unsigned char, 6> address{2,
                                               0,
                                               static_cast<unsigned char>(number >> 24U),
                                               static_cast<unsigned char>(number >> 16U),
                                               static_cast<unsigned char>(number >> 8U),
                                               static_cast<unsigned char>(number)};
    request.add(IFLA_ADDRESS, bytesOf(address));
    request.addNested(IFLA_LINKINFO, [&] { request.addText(IFLA_INFO_KIND, kind); });
    return request.send();
}

/// Otherwise the kernel adds an address when the interface goes up, and it takes its time.
void useNoAddressOfItsOwn(const std::string& interface) {
    ifinfomsg message{};
    message.ifi_index = indexOf(interface);
    Request request(RTM_NEWLINK, 0, message);
    request.addNested(IFLA_AF_SPEC, [&] {
        request.addNested(AF_INET6, [&] {
            const std::uint8_t mode = IN6_ADDR_GEN_MODE_NONE;
            request.add(IFLA_INET6_ADDR_GEN_MODE, bytesOf(mode));
        });
    });
    if (const int error = request.send(); error != 0) {
        fail("no addresses for " + interface, error);
    }
}

/// See netdevice(7).
template <typename Change>
void configure(const std::string& interface, unsigned long call, Change change) {
    const DescriptorGuard socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, interface.c_str(), sizeof(request.ifr_name) - 1);
    if (::ioctl(socket.borrow(), SIOCGIFFLAGS, &request) != 0) {
        fail(interface);
    }
    change(request);
    if (::ioctl(socket.borrow(), call, &request) != 0) {
        fail(interface);
    }
}

std::string addressBytes(int family, const std::string& text) {
    std::array<char, sizeof(in6_addr)> bytes{};
    if (::inet_pton(family, text.c_str(), bytes.data()) != 1) {
        throw std::invalid_argument(text);
    }
    return {bytes.data(), family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr)};
}

void enterNetwork() {
    const int namespaces = ::geteuid() == 0 ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET;
    if (::unshare(namespaces) != 0) {
        fail("unshare");
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

void writeWhole(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count <= 0) {
            ::_exit(1);
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

std::string withPrivateNetwork(const std::function<std::string()>& body) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return "no pipe";
    }
    const DescriptorGuard readEnd(ends[0]);
    DescriptorGuard writeEnd(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        std::string said;
        try {
            enterNetwork();
            said = body();
        } catch (const std::exception& exception) {
            said = std::string("exception: ") + exception.what();
        }
        writeWhole(writeEnd.borrow(), said);
        ::_exit(0);
    }
    writeEnd.closeNow();
    std::string said = readToEnd(readEnd.borrow());
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        said += "child status " + std::to_string(status);
    }
    return said;
}

std::string whyNoPrivateNetwork() {
    return withPrivateNetwork([] {
        addInterface("probe", 1);
        return std::string();
    });
}

void addInterface(const std::string& name, unsigned number) {
    // Not every kernel has the first. Of the last a thousand take 20 seconds to go.
    int error = EOPNOTSUPP;
    for (const char* kind : {"dummy", "ifb", "bridge"}) {
        if (error == EOPNOTSUPP) {
            error = tryInterface(kind, name, number);
        }
    }
    if (error != 0) {
        fail("no interface " + name, error);
    }
    useNoAddressOfItsOwn(name);
}

void addCable(const std::string& name, const std::string& otherName) {
    Request request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, ifinfomsg{});
    request.addText(IFLA_IFNAME, name);
    request.addNested(IFLA_LINKINFO, [&] {
        request.addText(IFLA_INFO_KIND, "veth");
        request.addNested(IFLA_INFO_DATA, [&] {
            request.addNested(VETH_INFO_PEER, [&] {
                request.addBare(ifinfomsg{});
                request.addText(IFLA_IFNAME, otherName);
            });
        });
    });
    if (const int error = request.send(); error != 0) {
        fail("no cable " + name, error);
    }
    useNoAddressOfItsOwn(name);
    useNoAddressOfItsOwn(otherName);
}

void addTunnel(const std::string& name) {
    const DescriptorGuard tunnel(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
    ifreq request{};
    name.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    request.ifr_flags = IFF_TUN;
    // It would go with the descriptor otherwise.
    if (tunnel.empty() || ::ioctl(tunnel.borrow(), TUNSETIFF, &request) != 0 ||
        ::ioctl(tunnel.borrow(), TUNSETPERSIST, 1) != 0) {
        fail(name);
    }
}

bool tunnelsAreKnown() {
    return withPrivateNetwork([] {
               addTunnel("tun0");
               return "";
           })
        .empty();
}

bool cablesAreKnown() {
    return withPrivateNetwork([] {
               addCable("one", "other");
               return std::string();
           })
        .empty();
}

void switchOn(const std::string& interface) {
    configure(interface, SIOCSIFFLAGS, [](ifreq& request) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    });
}

void switchOff(const std::string& interface) {
    configure(interface, SIOCSIFFLAGS, [](ifreq& request) {
        request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    });
}

void rename(const std::string& interface, const std::string& newName) {
    configure(interface, SIOCSIFNAME, [&newName](ifreq& request) {
        std::strncpy(request.ifr_newname, newName.c_str(), sizeof(request.ifr_newname) - 1);
    });
}

void addAddress(const std::string& interface, const std::string& address, unsigned prefix,
                const AddressExtras& extras) {
    const int family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    ifaddrmsg message{};
    message.ifa_family = static_cast<unsigned char>(family);
    message.ifa_prefixlen = static_cast<unsigned char>(prefix);
    message.ifa_flags = IFA_F_NODAD;
    message.ifa_index = static_cast<unsigned>(indexOf(interface));
    Request request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, message);
    const std::string local = addressBytes(family, address);
    request.add(IFA_LOCAL, local);
    request.add(IFA_ADDRESS, extras.peer.empty() ? local : addressBytes(family, extras.peer));
    if (family == AF_INET) {
        request.addText(IFA_LABEL, extras.label.empty() ? interface : extras.label);
    }
    if (const int error = request.send(); error != 0) {
        fail(address + " for " + interface, error);
    }
}

}  // namespace corvane
