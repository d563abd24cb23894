#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

class InterfacesOnDebian : public DebianTest {
 protected:
    void TearDown() override {
        shell().run("ip link delete tun0");
        DebianTest::TearDown();
    }
};

TEST_F(InterfacesOnDebian, ATunnelHasItsAddressesThoughItHasNoHardwareAddress) {
    shell().check(
        "modprobe tun; ip tuntap add tun0 mode tun; ip address add 10.8.0.1/24 dev tun0; "
        "ip link set tun0 addrgenmode none up; ip address add fd08::1/64 dev tun0");
    HostClient host = synchronisedHost();
    const boost::json::value answer = answerTo(host, "guest-network-get-interfaces");
    EXPECT_EQ(answer.at("return").as_array().back(),
              parse(R"({"name":"tun0","hardware-address":"0:0:0:0:0:0","ip-addresses":[)"
                    R"({"ip-address-type":"ipv4","ip-address":"10.8.0.1","prefix":24},)"
                    R"({"ip-address-type":"ipv6","ip-address":"fd08::1","prefix":64}]})"));
}

}  // namespace
}  // namespace corvane::vm
