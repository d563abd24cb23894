#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

class HostsThatComeAndGo : public SharedGuestTest {
 protected:
    /// Ends the host and waits until the agent has seen it.
    void depart(HostClient& host) {
        const std::size_t before = machine().settleLog();
        host.disconnect();
        machine().log().await("The connection has ended.", before);
    }
};

TEST_F(HostsThatComeAndGo, AHostThatConnectsSendsAndClosesAtOnceIsHeard) {
    for (int round = 0; round < 20; ++round) {
        const std::string name = "trace-" + std::to_string(round);
        HostClient host = machine().connectHost();
        host.send("\xFF{\"execute\":\"" + name + "\"}\n");
        host.disconnect();
        awaitLog("Unknown command: " + name);
    }
    HostClient next = synchronisedHost();
    EXPECT_EQ(next.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(HostsThatComeAndGo, AHostThatComesAndGoesInSilenceHarmsNobody) {
    // Each round is two notices, and QEMU loses those for which the guest has no buffer left: 32.
    for (int round = 0; round < 10; ++round) {
        machine().connectHost().disconnect();
    }
    HostClient next = synchronisedHost();
    EXPECT_EQ(next.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(HostsThatComeAndGo, TheNextHostCompletesTheRequestOfTheOneThatLeft) {
    HostClient host = synchronisedHost();
    host.send(R"({"execute":"guest-sync",)");
    depart(host);
    HostClient next = machine().connectHost();
    next.send("\"arguments\":{\"id\":31}}\n");
    EXPECT_EQ(next.receiveLine(), R"({"return":31})");
}

TEST_F(HostsThatComeAndGo, TheMarkerOfTheNextHostDropsTheRequestOfTheOneThatLeft) {
    HostClient host = synchronisedHost();
    host.send(R"({"execute":"guest-sync",)");
    depart(host);
    HostClient next = machine().connectHost();
    next.send("\xFF{\"execute\":\"guest-ping\"}\n");
    EXPECT_EQ(next.receiveLine(), R"({"return":{}})");
}

TEST_F(HostsThatComeAndGo, EveryDepartureIsLoggedOnce) {
    for (int round = 0; round < 5; ++round) {
        HostClient host = synchronisedHost();
        depart(host);
    }
    EXPECT_EQ(countOf("The connection has ended.", settledLog()), 5U);
}

TEST_F(HostsThatComeAndGo, AThousandHostsAreServedOneAfterAnother) {
    const std::string pid = shell().check("service pid");
    for (int round = 0; round < 1000; ++round) {
        ASSERT_NO_THROW(synchronisedHost()) << "host " << round;
    }
    EXPECT_EQ(shell().check("service pid"), pid);
    const std::string descriptors = shell().check("ls /proc/" + pid + "/fd | wc -l");
    EXPECT_LT(std::stoi(descriptors), 32);
}

TEST_F(HostsThatComeAndGo, ASecondHostIsServedAfterTheFirstHasLeft) {
    HostClient first = synchronisedHost();
    HostClient second = machine().connectHost();
    second.send("\xFF{\"execute\":\"guest-sync\",\"arguments\":{\"id\":2}}\n");
    EXPECT_EQ(first.request(R"({"execute":"guest-sync","arguments":{"id":1}})"), R"({"return":1})");
    first.disconnect();
    EXPECT_EQ(second.receiveLine(), R"({"return":2})");
}

}  // namespace
}  // namespace corvane::vm
