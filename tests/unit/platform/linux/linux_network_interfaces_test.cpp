#include "platform/linux/linux_network_interfaces.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "platform/linux/address_labels.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/forbidden_call.h"
#include "tests/unit/platform/linux/private_network.h"

namespace corvane {
namespace {

using Family = InterfaceAddress::Family;

std::string textOf(int family, const std::array<std::uint8_t, 16>& bytes) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    return ::inet_ntop(family, bytes.data(), text.data(), text.size());
}

/// The last four of the six bytes, which tell the interfaces of these tests apart.
std::string numberOf(const InterfaceAddress& entry) {
    unsigned number = 0;
    for (std::size_t index = 2; index < 6; ++index) {
        number = number << 8U | entry.address.at(index);
    }
    return std::to_string(number);
}

/// A line for each entry: name, "down" where it is, "link NUMBER" or "ADDRESS MASK".
std::string textOf(const std::vector<InterfaceAddress>& list) {
    std::string text;
    for (const InterfaceAddress& entry : list) {
        text += entry.interfaceName + (entry.isUp ? "" : " down");
        if (entry.family == Family::link) {
            text += " link " + numberOf(entry);
        } else if (entry.family != Family::other) {
            const int family = entry.family == Family::ipv4 ? AF_INET : AF_INET6;
            text += " " + textOf(family, entry.address) + " " +
                    (entry.mask ? textOf(family, *entry.mask) : "no mask");
        }
        text += "\n";
    }
    return text;
}

std::string listed() {
    auto list = LinuxNetworkInterfaces().list();
    return list.ok() ? textOf(list.value()) : "error " + std::to_string(list.error());
}

constexpr char loopbackThatIsDown[] = "lo down link 0\n";

/// Tests in a network of their own.
class InterfacesOfLinux : public testing::Test {
 protected:
    void SetUp() override {
        if (const std::string reason = whyNoPrivateNetwork(); !reason.empty()) {
            GTEST_SKIP() << "no network namespace of our own: " << reason;
        }
    }

    /// What is listed in a new network after `prepare`.
    static std::string listedAfter(const std::function<void()>& prepare) {
        return withPrivateNetwork([&] {
            prepare();
            return listed();
        });
    }
};

TEST_F(InterfacesOfLinux, LoopbackIsDownInANewNetwork) {
    EXPECT_EQ(listedAfter([] {}), loopbackThatIsDown);
}

TEST_F(InterfacesOfLinux, LoopbackHasBothItsAddressesAndNoHardwareAddress) {
    EXPECT_EQ(listedAfter([] { switchOn("lo"); }),
              "lo link 0\n"
              "lo 127.0.0.1 255.0.0.0\n"
              "lo ::1 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff\n");
}

TEST_F(InterfacesOfLinux, AddressesFollowTheirOwnInterface) {
    EXPECT_EQ(listedAfter([] {
                  switchOn("lo");
                  addInterface("eth0", 0x12345678);
                  addInterface("eth1", 2);
                  switchOn("eth0");
                  switchOn("eth1");
                  addAddress("eth1", "10.0.1.1", 24);
                  addAddress("eth1", "fd00:1::1", 64);
                  addAddress("eth0", "fd00::1", 127);
                  addAddress("eth0", "10.0.0.1", 30);
                  addAddress("eth0", "10.0.0.9", 32);
              }),
              "lo link 0\n"
              "lo 127.0.0.1 255.0.0.0\n"
              "lo ::1 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff\n"
              "eth0 link 305419896\n"
              "eth0 10.0.0.1 255.255.255.252\n"
              "eth0 10.0.0.9 255.255.255.255\n"
              "eth0 fd00::1 ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe\n"
              "eth1 link 2\n"
              "eth1 10.0.1.1 255.255.255.0\n"
              "eth1 fd00:1::1 ffff:ffff:ffff:ffff::\n");
}

TEST_F(InterfacesOfLinux, LabelsBelongToTheInterfaceBeforeTheColon) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  addInterface("eth1", 2);
                  switchOn("eth0");
                  switchOn("eth1");
                  addAddress("eth0", "10.0.0.1", 24, {"eth0:1", ""});
                  addAddress("eth1", "10.0.1.1", 24, {"eth1:web", ""});
                  addAddress("eth0", "10.0.0.2", 24, {"eth0:1:2", ""});
              }),
              std::string(loopbackThatIsDown) +
                  "eth0 link 1\n"
                  "eth0:1 10.0.0.1 255.255.255.0\n"
                  "eth0:1:2 10.0.0.2 255.255.255.0\n"
                  "eth1 link 2\n"
                  "eth1:web 10.0.1.1 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, LabelsOfAnyTextBelongToTheInterfaceThatHasTheAddress) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  addInterface("eth1", 2);
                  switchOn("eth0");
                  switchOn("eth1");
                  addAddress("eth0", "10.0.0.1", 24, {"web", ""});
                  addAddress("eth1", "10.0.1.1", 24, {"web", ""});
                  addAddress("eth0", "10.0.0.2", 24, {"web:eth1", ""});
                  addAddress("eth0", "10.0.0.3", 24, {":eth1", ""});
                  addAddress("eth1", "10.0.1.2", 24);
              }),
              std::string(loopbackThatIsDown) +
                  "eth0 link 1\n"
                  "web 10.0.0.1 255.255.255.0\n"
                  "web:eth1 10.0.0.2 255.255.255.0\n"
                  ":eth1 10.0.0.3 255.255.255.0\n"
                  "eth1 link 2\n"
                  "web 10.0.1.1 255.255.255.0\n"
                  "eth1 10.0.1.2 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, TunnelWithoutAHardwareAddressHasItsAddresses) {
    if (!tunnelsAreKnown()) {
        GTEST_SKIP() << "no tunnels here";
    }
    EXPECT_EQ(listedAfter([] {
                  addTunnel("tun0");
                  addTunnel("tun1");
                  switchOn("tun0");
                  addAddress("tun0", "10.8.0.1", 24, {"vpn", ""});
                  addAddress("tun0", "fd08::1", 64);
                  addAddress("tun1", "10.9.0.1", 24);
              }),
              std::string(loopbackThatIsDown) +
                  "tun0 link 0\n"
                  "vpn 10.8.0.1 255.255.255.0\n"
                  "tun0 fd08::1 ffff:ffff:ffff:ffff::\n"
                  "tun1 down link 0\n"
                  "tun1 down 10.9.0.1 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, LabelOfAnyTextIsLeftOutWhenItsOwnerIsNotToBeFoundOut) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  switchOn("eth0");
                  addAddress("eth0", "10.0.0.1", 24, {"web", ""});
                  addAddress("eth0", "10.0.0.2", 24);
                  addAddress("eth0", "10.0.0.3", 24, {"eth0:1", ""});
                  addAddress("eth0", "fd00::1", 64);
                  // The C library's own listing gets by with recvmsg.
                  forbidSystemCall(SYS_recvfrom, ENOBUFS);
              }),
              std::string(loopbackThatIsDown) +
                  "eth0 link 1\n"
                  "eth0 10.0.0.2 255.255.255.0\n"
                  "eth0:1 10.0.0.3 255.255.255.0\n"
                  "eth0 fd00::1 ffff:ffff:ffff:ffff::\n");
}

TEST_F(InterfacesOfLinux, AddressOfAPointToPointLinkIsOurEnd) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("ppp0", 1);
                  switchOn("ppp0");
                  addAddress("ppp0", "10.0.0.1", 32, {"", "10.0.0.2"});
                  addAddress("ppp0", "10.0.0.3", 32, {"tunnel", "10.0.0.4"});
                  addAddress("ppp0", "fd00::1", 128, {"", "fd00::2"});
              }),
              std::string(loopbackThatIsDown) +
                  "ppp0 link 1\n"
                  "ppp0 10.0.0.1 255.255.255.255\n"
                  "tunnel 10.0.0.3 255.255.255.255\n"
                  "ppp0 fd00::1 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff\n");
}

TEST_F(InterfacesOfLinux, AddressesOfAnInterfaceThatIsDownAreDownToo) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  addAddress("eth0", "10.0.0.1", 24);
                  addAddress("eth0", "10.0.0.2", 24, {"web", ""});
              }),
              std::string(loopbackThatIsDown) +
                  "eth0 down link 1\n"
                  "eth0 down 10.0.0.1 255.255.255.0\n"
                  "web down 10.0.0.2 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, InterfaceThatGoesDownKeepsItsIpv4Address) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  switchOn("eth0");
                  addAddress("eth0", "10.0.0.1", 24);
                  switchOff("eth0");
              }),
              std::string(loopbackThatIsDown) +
                  "eth0 down link 1\n"
                  "eth0 down 10.0.0.1 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, InterfaceWithoutAddressesIsItsLinkLevelEntryAlone) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  switchOn("eth0");
              }),
              std::string(loopbackThatIsDown) + "eth0 link 1\n");
}

TEST_F(InterfacesOfLinux, RenamedInterfaceKeepsItsAddresses) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  addInterface("eth1", 2);
                  addAddress("eth0", "10.0.0.1", 24);
                  addAddress("eth0", "10.0.0.2", 24, {"eth0:1", ""});
                  addAddress("eth1", "10.0.1.1", 24);
                  rename("eth0", "eth2");
                  rename("eth1", "eth0");
                  switchOn("eth0");
                  switchOn("eth2");
              }),
              std::string(loopbackThatIsDown) +
                  "eth2 link 1\n"
                  "eth2 10.0.0.1 255.255.255.0\n"
                  "eth2:1 10.0.0.2 255.255.255.0\n"
                  "eth0 link 2\n"
                  "eth0 10.0.1.1 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, LabelsThatARenamingHasCutAreStillTheirInterfaces) {
    EXPECT_EQ(listedAfter([] {
                  addInterface("eth0", 1);
                  addAddress("eth0", "10.0.0.1", 24);
                  addAddress("eth0", "10.0.0.2", 24);
                  rename("eth0", "fifteen-letters");
                  switchOn("fifteen-letters");
              }),
              std::string(loopbackThatIsDown) +
                  "fifteen-letters link 1\n"
                  "fifteen-letters 10.0.0.1 255.255.255.0\n"
                  "fifteen-lette:2 10.0.0.2 255.255.255.0\n");
}

TEST_F(InterfacesOfLinux, TwoEndsOfACableAreTwoInterfaces) {
    if (!cablesAreKnown()) {
        GTEST_SKIP() << "this kernel has no veth";
    }
    const std::string list = listedAfter([] {
        addCable("near", "far");
        switchOn("near");
        switchOn("far");
        addAddress("near", "10.0.0.1", 24);
        addAddress("far", "10.0.0.2", 24);
        addAddress("near", "fe80::1", 64);
    });
    EXPECT_NE(list.find("near 10.0.0.1 255.255.255.0\nnear fe80::1 ffff:ffff:ffff:ffff::\n"),
              std::string::npos)
        << list;
    EXPECT_NE(list.find("far 10.0.0.2 255.255.255.0\n"), std::string::npos) << list;
    EXPECT_LT(list.find("far link"), list.find("far 10.0.0.2")) << list;
    EXPECT_LT(list.find("near link"), list.find("near 10.0.0.1")) << list;
}

TEST_F(InterfacesOfLinux, InterfaceWhoseCableIsLooseAtTheOtherEndIsUpNonetheless) {
    if (!cablesAreKnown()) {
        GTEST_SKIP() << "this kernel has no veth";
    }
    const std::string list = listedAfter([] {
        addCable("near", "far");
        switchOn("near");
        addAddress("near", "10.0.0.1", 24);
    });
    EXPECT_NE(list.find("\nnear 10.0.0.1 255.255.255.0\n"), std::string::npos) << list;
    EXPECT_NE(list.find("\nnear link"), std::string::npos) << list;
    EXPECT_NE(list.find("far down link"), std::string::npos) << list;
}

/// What is wrong with the list of a network of so many interfaces with two addresses each.
std::string troubleAmong(unsigned interfaces) {
    auto list = LinuxNetworkInterfaces().list();
    if (!list.ok()) {
        return "error " + std::to_string(list.error());
    }
    const auto& entries = list.value();
    if (entries.size() != 1 + std::size_t{interfaces} * 3) {
        return std::to_string(entries.size()) + " entries";
    }
    std::set<std::string> names;
    for (std::size_t index = 1; index < entries.size(); index += 3) {
        const InterfaceAddress& link = entries.at(index);
        const InterfaceAddress& first = entries.at(index + 1);
        const InterfaceAddress& second = entries.at(index + 2);
        names.insert(link.interfaceName);
        const std::string number = link.interfaceName.substr(3);
        if (link.family != Family::link || numberOf(link) != number ||
            first.interfaceName != "label" + number || first.family != Family::ipv4 ||
            second.interfaceName != link.interfaceName || second.family != Family::ipv6) {
            return "interface " + link.interfaceName + ", addresses of " + first.interfaceName +
                   " and " + second.interfaceName;
        }
    }
    return names.size() == interfaces ? "" : "names come twice";
}

TEST_F(InterfacesOfLinux, ThousandInterfacesAreListedWithTheirOwnAddresses) {
    EXPECT_EQ(
        withPrivateNetwork([] {
            constexpr unsigned count = 1000;
            for (unsigned number = 0; number < count; ++number) {
                const std::string text = std::to_string(number);
                const std::string net = std::to_string(number / 250);
                const std::string host = std::to_string(number % 250 + 1);
                addInterface("eth" + text, number);
                addAddress("eth" + text, "10.1." + net + "." + host, 32, {"label" + text, ""});
                switchOn("eth" + text);
                addAddress("eth" + text, "fd00::" + net + ":" + host, 128);
            }
            return troubleAmong(count);
        }),
        "");
}

TEST_F(InterfacesOfLinux, EachListIsThatOfItsMoment) {
    EXPECT_EQ(withPrivateNetwork([] {
                  LinuxNetworkInterfaces interfaces;
                  std::string text = textOf(interfaces.list().value());
                  addInterface("eth0", 1);
                  text += textOf(interfaces.list().value());
                  rename("eth0", "eth1");
                  return text + textOf(interfaces.list().value());
              }),
              std::string(loopbackThatIsDown) + loopbackThatIsDown + "eth0 down link 1\n" +
                  loopbackThatIsDown + "eth1 down link 1\n");
}

TEST_F(InterfacesOfLinux, DescriptorsAreAsBefore) {
    EXPECT_EQ(withPrivateNetwork([]() -> std::string {
                  addInterface("eth0", 1);
                  addAddress("eth0", "10.0.0.1", 24, {"web", ""});
                  const std::size_t before = countDescriptors();
                  for (int time = 0; time < 10; ++time) {
                      if (!LinuxNetworkInterfaces().list().ok()) {
                          return "no list";
                      }
                  }
                  return countDescriptors() == before ? "" : "descriptors are left open";
              }),
              "");
}

/// No descriptor can be had from now on.
void refuseDescriptors() {
    const DescriptorGuard next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit limit{static_cast<rlim_t>(next.borrow()), static_cast<rlim_t>(next.borrow())};
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(InterfacesOfLinux, OwnersOfAddressesAreUnknownWithoutASocket) {
    EXPECT_EQ(withPrivateNetwork([]() -> std::string {
                  addInterface("eth0", 1);
                  addAddress("eth0", "10.0.0.1", 24, {"web", ""});
                  const LabelledAddress address{"web", {10, 0, 0, 1}};
                  const auto owners = addressOwners();
                  if (owners != std::map<LabelledAddress, std::string>{{address, "eth0"}}) {
                      return "not known with a socket either";
                  }
                  refuseDescriptors();
                  return addressOwners().empty() ? "" : "known";
              }),
              "");
}

// Wherever the tests run, there is a list, and there are ways not to get it.

TEST(NetworkInterfacesOfLinux, WithoutADescriptorTheErrorIsTold) {
    EXPECT_EQ(exitStatusOf([] {
                  refuseDescriptors();
                  ::_exit(LinuxNetworkInterfaces().list().error());
              }),
              24);
}

TEST(NetworkInterfacesOfLinux, WithoutASocketTheErrorIsTold) {
    EXPECT_EQ(exitStatusOf([] {
                  forbidSystemCall(SYS_socket, EAFNOSUPPORT, AF_NETLINK);
                  ::_exit(LinuxNetworkInterfaces().list().error());
              }),
              EAFNOSUPPORT);
}

TEST(NetworkInterfacesOfLinux, AreAnsweredInGroups) {
    auto list = LinuxNetworkInterfaces().list();
    ASSERT_TRUE(list.ok()) << list.error();
    std::set<std::string> done;
    std::string current;
    for (const InterfaceAddress& entry : list.value()) {
        if (entry.family == Family::link) {
            EXPECT_TRUE(done.insert(entry.interfaceName).second) << entry.interfaceName;
            current = entry.interfaceName;
        } else if (entry.family == Family::ipv6) {
            EXPECT_EQ(entry.interfaceName, current);
        }
    }
}

}  // namespace
}  // namespace corvane
