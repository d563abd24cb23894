// What virsh can ask of the agent, or have it do, by commands of its own.
#include <ctime>
#include <string>

#include <boost/json/parse.hpp>

#include "tests/vm/clients/clients_fixture.h"

namespace corvane::vm {
namespace {

using Sent = std::vector<std::string>;

const Sent interfaceRequest = {R"({"execute":"guest-network-get-interfaces"})"};

class VirshQuery : public ClientsTest {
 protected:
    /// The address that the kernel has made of the hardware address is there at once.
    void expectAddresses(const std::vector<std::string>& words, const std::string& lines) {
        std::vector<std::string> all = {"domifaddr", guest().name(), "--source", "agent"};
        all.insert(all.end(), words.begin(), words.end());
        const ClientOutcome outcome = virsh(all);
        EXPECT_EQ(outcome.result.status, 0) << outcome.result.errors;
        EXPECT_EQ(outcome.result.output, " Name       MAC address          Protocol     Address\n" +
                                             std::string(79, '-') + '\n' + lines + '\n');
        EXPECT_EQ(outcome.sent, interfaceRequest);
    }

    void expectClock(long long seconds) {
        const long long now = std::stoll(shell().check("date +%s"));
        EXPECT_GE(now, seconds);
        EXPECT_LT(now, seconds + 600);  // the guest's clock goes on
    }
};

TEST_F(VirshQuery, DomifaddrShowsEveryAddress) {
    expectAddresses({},
                    " lo         0:0:0:0:0:0          ipv4         127.0.0.1/8\n"
                    " -          -                    ipv6         ::1/128\n"
                    " dummy0     52:54:0:a:b:c        ipv4         192.0.2.5/24\n"
                    " -          -                    ipv6         2001:db8::5/64\n"
                    " -          -                    ipv6         fe80::5054:ff:fe0a:b0c/64\n");
}

TEST_F(VirshQuery, DomifaddrShowsOneInterfaceInFull) {
    expectAddresses({"--interface", "dummy0", "--full"},
                    " dummy0     52:54:0:a:b:c        ipv4         192.0.2.5/24\n"
                    " dummy0     52:54:0:a:b:c        ipv6         2001:db8::5/64\n"
                    " dummy0     52:54:0:a:b:c        ipv6         fe80::5054:ff:fe0a:b0c/64\n");
    expectAddresses({"--interface", "dummy1"}, "");
}

/// Without categories it leaves out those that the agent does not know.
TEST_F(VirshQuery, GuestinfoShowsTheInterfacesAndNothingElse) {
    const std::string interfaces =
        "if.count            : 2\n"
        "if.0.name           : lo\n"
        "if.0.hwaddr         : 0:0:0:0:0:0\n"
        "if.0.addr.count     : 2\n"
        "if.0.addr.0.type    : ipv4\n"
        "if.0.addr.0.addr    : 127.0.0.1\n"
        "if.0.addr.0.prefix  : 8\n"
        "if.0.addr.1.type    : ipv6\n"
        "if.0.addr.1.addr    : ::1\n"
        "if.0.addr.1.prefix  : 128\n"
        "if.1.name           : dummy0\n"
        "if.1.hwaddr         : 52:54:0:a:b:c\n"
        "if.1.addr.count     : 3\n"
        "if.1.addr.0.type    : ipv4\n"
        "if.1.addr.0.addr    : 192.0.2.5\n"
        "if.1.addr.0.prefix  : 24\n"
        "if.1.addr.1.type    : ipv6\n"
        "if.1.addr.1.addr    : 2001:db8::5\n"
        "if.1.addr.1.prefix  : 64\n"
        "if.1.addr.2.type    : ipv6\n"
        "if.1.addr.2.addr    : fe80::5054:ff:fe0a:b0c\n"
        "if.1.addr.2.prefix  : 64\n\n";
    const ClientOutcome all = virsh({"guestinfo", guest().name()});
    EXPECT_EQ(all.result.status, 0) << all.result.errors;
    EXPECT_EQ(all.result.output, interfaces);
    EXPECT_EQ(all.sent,
              (Sent{R"({"execute":"guest-get-users"})", R"({"execute":"guest-get-osinfo"})",
                    R"({"execute":"guest-get-timezone"})", R"({"execute":"guest-get-host-name"})",
                    R"({"execute":"guest-get-fsinfo"})", R"({"execute":"guest-get-disks"})",
                    interfaceRequest.front()}));
    const ClientOutcome one = virsh({"guestinfo", guest().name(), "--interface"});
    EXPECT_EQ(one.result.output, interfaces) << one.result.errors;
    EXPECT_EQ(one.sent, interfaceRequest);
}

TEST_F(VirshQuery, DomtimeSetsTheClock) {
    const ClientOutcome fixed = virsh({"domtime", guest().name(), "--time", "1700000000"});
    EXPECT_EQ(fixed.result.status, 0) << fixed.result.errors;
    EXPECT_EQ(fixed.sent,
              (Sent{R"({"execute":"guest-set-time","arguments":{"time":1700000000000000000}})"}));
    expectClock(1700000000);
    const long long hostsTime = std::time(nullptr);
    const ClientOutcome now = virsh({"domtime", guest().name(), "--now"});
    EXPECT_EQ(now.result.status, 0) << now.result.errors;
    ASSERT_EQ(now.sent.size(), 1U);
    EXPECT_TRUE(now.sent.front().starts_with(R"({"execute":"guest-set-time",)"))
        << now.sent.front();
    expectClock(hostsTime);
}

TEST_F(VirshQuery, DumpxmlShowsThatTheAgentIsConnected) {
    const std::string connected =
        "<target type='virtio' name='org.qemu.guest_agent.0' state='connected'/>";
    EXPECT_NE(virsh({"dumpxml", guest().name()}).result.output.find(connected), std::string::npos);
}

}  // namespace
}  // namespace corvane::vm
