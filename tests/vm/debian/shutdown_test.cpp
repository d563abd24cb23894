#include <string>

#include "tests/vm/debian/power_off_fixture.h"

namespace corvane::vm {
namespace {

class ShutdownByTheHost : public PowerOffTest {
 protected:
    /// What the agent answers. It does so before the guest is down.
    boost::json::value shutDown(const std::string& arguments) {
        HostClient host = synchronisedHost();
        writeFile(host);
        startClock();
        return parse(host.request("{\"execute\":\"guest-shutdown\"" + arguments + "}"));
    }
};

TEST_F(ShutdownByTheHost, DoesNotComeOfAModeThatIsRefused) {
    HostClient host = synchronisedHost();
    ExecClient requests(host);
    EXPECT_EQ(requests.refusalOf("guest-shutdown", {{"mode", "Reboot"}}), "unsupported mode");
    EXPECT_EQ(requests.refusalOf("guest-shutdown", {{"mode", 1}}), "mode is not a string");
    EXPECT_EQ(shell().check("systemctl is-system-running; systemctl list-jobs --no-legend"),
              "running");
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(ShutdownByTheHost, RebootStartsTheGuestAgainAndTheAgentWithIt) {
    const std::string firstBoot = shell().check("cat /proc/sys/kernel/random/boot_id");
    EXPECT_EQ(shutDown(R"(,"arguments":{"mode":"reboot"})"), emptyReturn);
    expectRestartedInOrder();
    EXPECT_NE(shell().check("cat /proc/sys/kernel/random/boot_id"), firstBoot);
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
    EXPECT_EQ(property("corvane.service", "NRestarts"), "0");
    HostClient host = synchronisedHost();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(ShutdownByTheHost, WithoutArgumentsPowersOff) {
    EXPECT_EQ(shutDown(""), emptyReturn);
    expectPoweredOffInOrder();
}

TEST_F(ShutdownByTheHost, HaltPowersOff) {
    EXPECT_EQ(shutDown(R"(,"arguments":{"mode":"halt"})"), emptyReturn);
    expectPoweredOffInOrder();
}

TEST_F(ShutdownByTheHost, PowerdownPowersOffWhileAProgramOfTheHostRuns) {
    {
        // It does not hold anything up.
        HostClient host = synchronisedHost();
        ExecClient(host).start({{"path", "/bin/sleep"}, {"arg", {"100000"}}});
    }
    EXPECT_EQ(shutDown(R"(,"arguments":{"mode":"powerdown"})"), emptyReturn);
    expectPoweredOffInOrder();
}

}  // namespace
}  // namespace corvane::vm
