// libvirt's Python binding restarts the guest and powers it off by way of the agent.
#include <string>

#include "tests/vm/clients/binding_client.h"
#include "tests/vm/clients/clients_fixture.h"

namespace corvane::vm {
namespace {

class BindingPower : public ClientsTest {};

TEST_F(BindingPower, RestartsTheGuestAndPowersItOff) {
    BindingClient client(daemon(), guest().name());
    constexpr char bootId[] = "cat /proc/sys/kernel/random/boot_id";
    const std::string firstBoot = shell().check(bootId);
    const std::size_t mark = daemon().log().end();
    reconnect([&] {
        EXPECT_EQ(client.check({"reboot", "VIR_DOMAIN_REBOOT_GUEST_AGENT"}), 0);
        guest().awaitRestart();
    });
    EXPECT_NE(shell().check(bootId), firstBoot);
    EXPECT_EQ(client.check({"shutdownFlags", "VIR_DOMAIN_SHUTDOWN_GUEST_AGENT"}), 0);
    guest().awaitEnd();
    EXPECT_TRUE(guest().disk().isClean());
    EXPECT_EQ(requestsSince(mark),
              (std::vector<std::string>{
                  R"({"execute":"guest-shutdown","arguments":{"mode":"reboot"}})",
                  R"({"execute":"guest-shutdown","arguments":{"mode":"powerdown"}})"}));
}

}  // namespace
}  // namespace corvane::vm
