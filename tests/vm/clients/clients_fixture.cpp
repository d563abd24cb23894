#include "tests/vm/clients/clients_fixture.h"

#include <cstdlib>
#include <iostream>
#include <memory>

namespace corvane::vm {
namespace {

std::filesystem::path imageDirectory(const char* variable, const char* usual) {
    const char* chosen = std::getenv(variable);
    return chosen != nullptr ? chosen : usual;
}

/// What the tests expect to see: an interface with addresses that mean nothing.
constexpr char makeInterface[] =
    "ip link add dummy0 address 52:54:00:0a:0b:0c type dummy;"
    "ip address add 192.0.2.5/24 dev dummy0;"
    "ip address add 2001:db8::5/64 dev dummy0 nodad;"
    "ip link set dummy0 up";

/// The daemon and the guests, from their first use to the end of the run.
class SharedClients : public ::testing::Environment {
 public:
    LibvirtDaemon& daemon() {
        if (!daemon_) {
            daemon_ = std::make_unique<LibvirtDaemon>();
            std::cout << daemon_->virsh({"version"}).output << std::flush;
        }
        return *daemon_;
    }

    ClientGuest& debian() {
        if (!debian_) {
            debian_ = std::make_unique<ClientGuest>(
                daemon(), "debian",
                imageDirectory("CORVANE_DEBIAN_VM_DIR", CORVANE_DEBIAN_VM_DEFAULT_DIR));
        }
        return *debian_;
    }

    ClientGuest& small() {
        if (!small_) {
            small_ = std::make_unique<ClientGuest>(
                daemon(), "small", imageDirectory("CORVANE_VM_DIR", CORVANE_VM_DEFAULT_DIR));
        }
        return *small_;
    }

    void TearDown() override {
        // The guests' machines end with the daemon.
        debian_.reset();
        small_.reset();
        daemon_.reset();
    }

 private:
    std::unique_ptr<LibvirtDaemon> daemon_;
    std::unique_ptr<ClientGuest> debian_;
    std::unique_ptr<ClientGuest> small_;
};

SharedClients& shared =
    *static_cast<SharedClients*>(::testing::AddGlobalTestEnvironment(new SharedClients));

}  // namespace

LibvirtDaemon& ClientsTest::daemon() {
    return shared.daemon();
}

ClientGuest& ClientsTest::guest() {
    return shared.debian();
}

ClientGuest& ClientsTest::smallGuest() {
    return shared.small();
}

void ClientsTest::SetUp() {
    mark_ = daemon().log().end();
    if (!guest().isRunning()) {
        guest().start();
        if (shell().run("dpkg --status corvane").status != 0) {
            reconnect([this] { shell().check("dpkg --install /root/corvane.deb"); });
        } else {
            awaitConnected(mark_);
        }
        // libvirt waits five seconds for an agent that it has not spoken to, which an emulated
        // guest on a busy machine may exceed.
        ASSERT_EQ(virsh({"guest-agent-timeout", guest().name(), "--timeout", "60"}).result.status,
                  0);
    }
    if (shell().run("ip link show dummy0").status != 0) {
        shell().check(makeInterface);
    }
}

void ClientsTest::TearDown() {
    if (HasFailure()) {
        std::cout << "libvirt's log of this test:\n" << daemon().log().since(mark_) << std::endl;
    }
}

void ClientsTest::awaitConnected(std::size_t mark) {
    daemon().log().await("New agent ", mark);
}

std::size_t ClientsTest::synchronisations(std::size_t mark) {
    return countOf("Sending guest-sync command", daemon().log().since(mark));
}

std::vector<std::string> ClientsTest::requestsSince(std::size_t mark) {
    const std::string before = "Send command '";
    const std::string after = "' for write, seconds";
    const std::string log = daemon().log().since(mark);
    std::vector<std::string> requests;
    for (auto at = log.find(before); at != std::string::npos; at = log.find(before, at)) {
        at += before.size();
        requests.push_back(log.substr(at, log.find(after, at) - at));
    }
    return requests;
}

ClientOutcome ClientsTest::virsh(const std::vector<std::string>& words) {
    const std::size_t mark = daemon().log().end();
    ClientOutcome outcome{daemon().virsh(words), {}};
    outcome.sent = requestsSince(mark);
    return outcome;
}

ClientOutcome ClientsTest::request(const std::string& json) {
    return virsh({"qemu-agent-command", guest().name(), "--timeout", "60", json});
}

void ClientsTest::expectServed() {
    const ClientOutcome ping = request(R"({"execute":"guest-ping"})");
    EXPECT_EQ(ping.result.output, "{\"return\":{}}\n\n") << ping.result.errors;
}

/// In two steps, since QEMU tells of a port at most once a second: of an agent that goes and comes
/// within that it says nothing.
void ClientsTest::restartAgent() {
    const std::size_t mark = daemon().log().end();
    shell().check("systemctl stop corvane.service");
    daemon().log().await("qemuAgentClose", mark);
    reconnect([this] { shell().check("systemctl start corvane.service"); });
}

}  // namespace corvane::vm
