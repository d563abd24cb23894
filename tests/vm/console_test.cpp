#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

/// The agent on a console device, which is a terminal, instead of the named port.
class AgentOnConsole : public GuestTest {
 protected:
    static void SetUpTestSuite() { guest = bootGuest({.console = true, .startAgent = false}); }
    static void TearDownTestSuite() { guest.reset(); }
    void SetUp() override { use(*guest); }

    static inline std::unique_ptr<VirtualMachine> guest;
};

TEST_F(AgentOnConsole, ServesClaimsTheTerminalAndLeavesItsAttributesAlone) {
    const std::string before = shell().check("stty -a < /dev/hvc0");
    shell().check("chmod 666 /dev/hvc0; service start");
    awaitLog("Corvane 1.3");

    // The line discipline echoes the request and ends the answer with CR LF.
    HostClient host = machine().connectHost();
    host.send("{\"execute\":\"guest-sync\",\"arguments\":{\"id\":8642}}\n");
    std::string line;
    while (line.find("{\"return\":8642}") == std::string::npos) {
        line = host.receiveLine();
    }
    EXPECT_TRUE(line.ends_with("{\"return\":8642}\r")) << line;

    const CommandResult other =
        shell().run("su nobody -s /bin/sh -c 'LC_ALL=C dd if=/dev/hvc0 of=/dev/null count=1'");
    EXPECT_NE(other.status, 0);
    EXPECT_NE(other.output.find("Device or resource busy"), std::string::npos) << other.output;
    // Root may always open it.
    EXPECT_EQ(shell().check("stty -a < /dev/hvc0"), before);
}

}  // namespace
}  // namespace corvane::vm
