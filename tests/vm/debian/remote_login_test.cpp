#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

/// Begins with ssh.service on and ssh.socket off, as Debian installs them, and leaves it so.
class RemoteLogin : public DebianTest {
 protected:
    void TearDown() override {
        disableUnit("ssh.socket");
        enableUnit("ssh.service");
        DebianTest::TearDown();
    }

    void useSocket() {
        disableUnit("ssh.service");
        enableUnit("ssh.socket");
    }

    void set(const boost::json::value& enabled) {
        HostClient host = synchronisedHost();
        EXPECT_EQ(ExecClient(host).ask("mirel-guest-set-remote-login", {{"enabled", enabled}}),
                  boost::json::object());
    }

    /// What somebody sees who comes to the SSH port from within the guest.
    std::string greeting() {
        return shell()
            .run(
                "bash -c 'exec 3<>/dev/tcp/127.0.0.1/22 && read -t 30 -r line <&3 && "
                "echo \"${line%%-OpenSSH*}\"' 2>/dev/null")
            .output;
    }

    void expectOn(const std::string& unit) {
        EXPECT_EQ(state("is-enabled", unit), "enabled");
        EXPECT_EQ(state("is-active", unit), "active");
        EXPECT_EQ(greeting(), "SSH-2.0\n");
    }
    void expectOff() {
        for (const char* unit : {"ssh.service", "ssh.socket"}) {
            EXPECT_EQ(state("is-enabled", unit), "disabled") << unit;
            EXPECT_EQ(state("is-active", unit), "inactive") << unit;
        }
        EXPECT_EQ(greeting(), "");
    }
};

TEST_F(RemoteLogin, GoesOffAndOnAgainWithTheService) {
    expectOn("ssh.service");
    set(false);
    expectOff();
    set(0);  // once more
    expectOff();
    set(true);
    expectOn("ssh.service");
    set(1);
    expectOn("ssh.service");
}

TEST_F(RemoteLogin, GoesOffAndOnAgainWithTheSocket) {
    useSocket();
    expectOn("ssh.socket");
    set(true);
    expectOn("ssh.socket");
    EXPECT_EQ(state("is-enabled", "ssh.service"), "disabled");
    // Whoever has come to the socket has started the service.
    ASSERT_EQ(state("is-active", "ssh.service"), "active");
    set(false);
    expectOff();
    set(true);
    EXPECT_EQ(greeting(), "SSH-2.0\n");
    // Whichever it is, it comes with the next start of the guest, too.
    EXPECT_TRUE(state("is-enabled", "ssh.service") == "enabled" ||
                state("is-enabled", "ssh.socket") == "enabled");
}

TEST_F(RemoteLogin, GoesOffWhenTheRequestDoesNotSay) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(ExecClient(host).ask("mirel-guest-set-remote-login", {}), boost::json::object());
    expectOff();
}

TEST_F(RemoteLogin, IsLeftAsItIsByARequestThatIsRefused) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(ExecClient(host).refusalOf("mirel-guest-set-remote-login", {{"enabled", "no"}}),
              "enabled is not a number");
    expectOn("ssh.service");
}

}  // namespace
}  // namespace corvane::vm
