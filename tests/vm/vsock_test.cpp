#include <fstream>
#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

/// Guests that publish a vsock port. A helper in the guest plays the host at cid 2.
class AgentOnVsock : public GuestTest {
 protected:
    void boot(MachineOptions options) {
        options.vsockLoopback = true;
        options.startAgent = false;
        guest_ = bootGuest(options);
        use(*guest_);
    }

    /// Lets a vsock host ask these lines and vanish; returns its answers. The agent starts once the
    /// host listens.
    std::string answersTo(const std::string& requests) {
        shell().check("mkfifo /run/answers; cat > /run/requests <<'END'\n" + requests +
                      "\nEND\nvsock-host exchange 1024 /run/requests /run/answers");
        shell().check("service start");
        return shell().check("cat /run/answers");
    }

    /// The channel's whole story on port 1024, however the port was published.
    void expectVsockFirstAndSerialAfterwards() {
        const std::string answers = answersTo(
            "{\"execute\":\"guest-sync-delimited\",\"arguments\":{\"id\":1}}\n"
            "{\"execute\":\"guest-info\"}");
        const auto lineEnd = answers.find('\n');
        EXPECT_EQ(answers.substr(0, lineEnd), "\xFF{\"return\":1}");
        EXPECT_EQ(parse(answers.substr(lineEnd + 1))
                      .at("return")
                      .at("supported_commands")
                      .as_array()
                      .size(),
                  19U);
        awaitLog("Error connecting to vsock peer at address cid 2 and port 1024: ");
        HostClient host = synchronisedHost();
        EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
        const std::string log = settledLog();
        EXPECT_EQ(countOf("The connection has ended.", log), 1U);
        EXPECT_EQ(countOf("Error connecting to vsock peer", log), 1U);
        EXPECT_EQ(countOf("agent exited", log), 0U);
    }

 private:
    std::unique_ptr<VirtualMachine> guest_;
};

TEST_F(AgentOnVsock, TakesThePortOfTheBootArgumentAndAsksNoNode) {
    boot({.kernelWords = {"mirel-guest-agent-port=1024"}});
    expectVsockFirstAndSerialAfterwards();
    EXPECT_EQ(countOf("Cannot find entry", settledLog()), 0U);
}

TEST_F(AgentOnVsock, TakesThePortOfTheOptionsNodeAsText) {
    boot({.firmwareEntries = {"name=opt/mirel/options/mirel-guest-agent-port,string=1024"}});
    expectVsockFirstAndSerialAfterwards();
}

TEST_F(AgentOnVsock, TakesThePortOfTheProductNodeAsALittleEndianNumber) {
    const std::string path = ::testing::TempDir() + "corvane-port-" + std::to_string(::getpid());
    std::ofstream(path, std::ios::binary) << '\0' << '\x04';
    boot({.firmwareEntries = {"name=opt/mirel/product/mirel-guest-agent-port,file=" + path}});
    std::filesystem::remove(path);
    expectVsockFirstAndSerialAfterwards();
}

TEST_F(AgentOnVsock, APortAboveThirtyTwoBitsIsLoggedAndTheSerialPortServes) {
    boot({.kernelWords = {"mirel-guest-agent-port=4294967296"}});
    shell().check("service start");
    awaitLog("Value 4294967296 too large for uint32");
    HostClient host = synchronisedHost();
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
    EXPECT_EQ(countOf("vsock", settledLog()), 0U);
}

}  // namespace
}  // namespace corvane::vm
