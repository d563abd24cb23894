// virsh powers guests off and restarts them by way of the agent.
#include <string>

#include "tests/vm/clients/clients_fixture.h"

namespace corvane::vm {
namespace {

constexpr char bootId[] = "cat /proc/sys/kernel/random/boot_id";

/// What the agent gets.
std::vector<std::string> requestFor(const std::string& mode) {
    return {R"({"execute":"guest-shutdown","arguments":{"mode":")" + mode + "\"}}"};
}

class VirshPower : public ClientsTest {
 protected:
    void order(ClientGuest& ordered, const std::string& verb, const std::vector<std::string>& words,
               const std::vector<std::string>& sent) {
        std::vector<std::string> all = {verb, ordered.name()};
        all.insert(all.end(), words.begin(), words.end());
        const ClientOutcome outcome = virsh(all);
        EXPECT_EQ(outcome.result.status, 0) << outcome.result.errors;
        EXPECT_EQ(outcome.result.output, "Domain '" + ordered.name() + "' is being " +
                                             (verb == "reboot" ? "rebooted" : verb) + "\n\n");
        EXPECT_EQ(outcome.sent, sent);
    }

    void expectOffInOrder() {
        guest().awaitEnd();
        EXPECT_TRUE(guest().disk().isClean());
        EXPECT_NE(guest().console().find("reboot: Power down"), std::string::npos);
    }

    void expectRestart(const std::vector<std::string>& words) {
        const std::string firstBoot = shell().check(bootId);
        reconnect([&] {
            order(guest(), "reboot", words, requestFor("reboot"));
            guest().awaitRestart();
        });
        EXPECT_NE(shell().check(bootId), firstBoot);
        EXPECT_EQ(shell().check("dmesg | grep -c 'EXT4-fs.*recovery complete' || true"), "0");
        expectServed();
    }

    /// Starts the guest without a service manager, whose agent can be asked then.
    void startSmallGuest() {
        const std::size_t mark = daemon().log().end();
        smallGuest().start();
        awaitConnected(mark);
        ASSERT_EQ(
            virsh({"guest-agent-timeout", smallGuest().name(), "--timeout", "60"}).result.status,
            0);
    }
};

TEST_F(VirshPower, RebootByTheAgentRestartsTheGuestInOrder) {
    expectRestart({"--mode", "agent"});
}

/// Without a mode the agent comes first.
TEST_F(VirshPower, RebootWithoutAModeIsByTheAgentToo) {
    expectRestart({});
}

TEST_F(VirshPower, ShutdownByTheAgentPowersTheGuestOffInOrder) {
    order(guest(), "shutdown", {"--mode", "agent"}, requestFor("powerdown"));
    expectOffInOrder();
}

TEST_F(VirshPower, ShutdownWithoutAModeIsByTheAgentToo) {
    order(guest(), "shutdown", {}, requestFor("powerdown"));
    expectOffInOrder();
}

/// The agent is not asked, but hears the button that libvirt presses: nobody else in this guest
/// listens to it.
TEST_F(VirshPower, ShutdownByTheButtonPowersOffThroughTheAgent) {
    order(guest(), "shutdown", {"--mode", "acpi"}, {});
    expectOffInOrder();
}

/// There the machine ends before an answer can come. libvirt is prepared for that, but when QEMU
/// has gone before the one who waits has woken up, it shows the end as an error.
TEST_F(VirshPower, AGuestWithoutAServiceManagerIsRestartedAndPoweredOff) {
    startSmallGuest();
    const std::string firstBoot = smallGuest().shell().check(bootId);
    reconnect([&] {
        order(smallGuest(), "reboot", {"--mode", "agent"}, requestFor("reboot"));
        smallGuest().awaitRestart();
    });
    EXPECT_NE(smallGuest().shell().check(bootId), firstBoot);
    const ClientOutcome outcome = virsh({"shutdown", smallGuest().name(), "--mode", "agent"});
    EXPECT_EQ(outcome.sent, requestFor("powerdown"));
    if (outcome.result.status != 0) {
        EXPECT_EQ(outcome.result.errors,
                  "error: Failed to shutdown domain 'small'\n"
                  "error: internal error: End of file from agent socket\n");
    }
    smallGuest().awaitEnd();
}

}  // namespace
}  // namespace corvane::vm
