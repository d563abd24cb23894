#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

class AgentAsAService : public SharedGuestTest {
 protected:
    void TearDown() override {
        shell().check("rm -f /run/agent/environment");
        SharedGuestTest::TearDown();
    }

    void restartAgent() {
        shell().check("service restart");
        awaitLog("Corvane 1.3");
    }

    /// The soft limit of open files of an agent that was started with this one.
    std::string openFilesAfterStartWith(const std::string& softLimit) {
        shell().check("echo 'ulimit -Sn " + softLimit + "' > /run/agent/environment");
        restartAgent();
        synchronisedHost();  // it serves: start-up is over
        return shell().check("awk '/^Max open files/ { print $4 }' /proc/$(service pid)/limits");
    }
};

TEST_F(AgentAsAService, StartUpNamesTheVersionAndSaysNothingOfVsockWithoutOne) {
    restartAgent();
    synchronisedHost();
    const std::string log = settledLog();
    EXPECT_EQ(countOf("Corvane 1.3-MirelVirtIO-221.100.2~2982", log), 1U);
    EXPECT_EQ(countOf("vsock", log), 0U);
}

TEST_F(AgentAsAService, ALowLimitOfOpenFilesIsRaised) {
    EXPECT_EQ(openFilesAfterStartWith("256"), "512");
}

TEST_F(AgentAsAService, ASufficientLimitOfOpenFilesIsLeftAlone) {
    EXPECT_EQ(openFilesAfterStartWith("1024"), "1024");
}

TEST_F(AgentAsAService, ASecondOpenOfThePortIsRefused) {
    synchronisedHost();
    const CommandResult opened =
        shell().run("LC_ALL=C dd if=/dev/tty.org.qemu.guest_agent.0 of=/dev/null count=1");
    EXPECT_NE(opened.status, 0);
    EXPECT_NE(opened.output.find("Device or resource busy"), std::string::npos) << opened.output;
}

TEST_F(AgentAsAService, ACommandNameThatIsNoStringEndsTheAgentAndTheServiceComesBack) {
    HostClient host = synchronisedHost();
    host.send("{\"execute\":5}\n");
    const std::string log = awaitLog("agent exited with status");
    EXPECT_EQ(countOf("agent exited with status 1\n", log), 1U) << log;
    EXPECT_EQ(countOf("Unhandled exception: 'Error ", log), 1U) << log;
    host.synchronise();
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(AgentAsAService, AnAgentKilledInTheMiddleOfARequestComesBack) {
    HostClient host = synchronisedHost();
    host.send(R"({"execute":"guest-sync",)");
    shell().check("kill -9 $(service pid)");
    awaitLog("agent exited with status 137");
    host.synchronise();
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(AgentAsAService, BytesThatAHostSendsWhileNoAgentRunsAreServedByTheNext) {
    shell().check("service stop");
    HostClient host = machine().connectHost();
    host.send("{\"execute\":\"guest-sync\",\"arguments\":{\"id\":9}}\n");
    shell().check("service start");
    EXPECT_EQ(host.receiveLine(), R"({"return":9})");
}

TEST_F(AgentAsAService, WithoutItsDeviceTheAgentEndsWithStatusOneAndTriesAgain) {
    shell().check("service stop; mv /dev/tty.org.qemu.guest_agent.0 /dev/hidden; service start");
    const std::string log = awaitLog("agent exited with status 1\n");
    EXPECT_EQ(countOf("agent exited with status 1\n", log), 1U) << log;
    shell().check("mv /dev/hidden /dev/tty.org.qemu.guest_agent.0");
    HostClient host = synchronisedHost();
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(AgentAsAService, ADeviceOfAnotherDriverIsRefused) {
    shell().check(
        "service stop; mv /dev/tty.org.qemu.guest_agent.0 /dev/hidden; "
        "ln -s ttyS0 /dev/tty.org.qemu.guest_agent.0; service start");
    const std::string log = awaitLog("agent exited with status 1\n");
    shell().check("mv -f /dev/hidden /dev/tty.org.qemu.guest_agent.0");
    EXPECT_EQ(countOf("Invalid guest agent environment.", log), 1U) << log;
    EXPECT_EQ(countOf("agent exited with status 1\n", log), 1U) << log;
    synchronisedHost();
}

}  // namespace
}  // namespace corvane::vm
