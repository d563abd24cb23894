#include <chrono>
#include <string>

#include <boost/json/serialize.hpp>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

constexpr Limit patience = std::chrono::minutes(4);

/// The message bus takes connections, and then does nothing with them.
class StalledBus : public DebianTest {
 protected:
    void SetUp() override {
        DebianTest::SetUp();
        daemon_ = property("dbus.service", "MainPID");
        shell().check("kill -STOP " + daemon_);
        awaitInGuest("awk '/^State/ { print $2 }' /proc/" + daemon_ + "/status", "T");
    }
    void TearDown() override {
        resume();
        DebianTest::TearDown();
    }

    /// Returns when the bus has done all that was asked of it while it slept.
    void resume() {
        shell().check("kill -CONT " + daemon_ +
                      "; busctl call org.freedesktop.login1 /org/freedesktop/login1 "
                      "org.freedesktop.DBus.Peer Ping; busctl call org.freedesktop.systemd1 "
                      "/org/freedesktop/systemd1 org.freedesktop.DBus.Peer Ping");
    }

    static std::string refusal(HostClient& host, const std::string& request) {
        const boost::json::value answer = parse(host.request(request, patience));
        const auto* error = answer.as_object().if_contains("error");
        return error == nullptr ? boost::json::serialize(answer)
                                : std::string(error->at("desc").as_string());
    }

 private:
    std::string daemon_;
};

TEST_F(StalledBus, InfoIsAnswered) {
    HostClient host = synchronisedHost();
    const boost::json::value answer = answerTo(host, "guest-info", patience);
    EXPECT_TRUE(answer.as_object().contains("return"));
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(StalledBus, ShutdownFailsAndDoesNotComeLater) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(refusal(host, R"({"execute":"guest-shutdown"})"), "failed to shutdown");
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
    resume();
    EXPECT_EQ(shell().check("systemctl is-system-running; systemctl list-jobs --no-legend"),
              "running");
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(StalledBus, RemoteLoginFailsAndStaysAsItIs) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(
        refusal(host,
                R"({"execute":"mirel-guest-set-remote-login","arguments":{"enabled":false}})"),
        "failed to set remote login");
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
    resume();
    EXPECT_EQ(state("is-active", "ssh.service"), "active");
    EXPECT_EQ(state("is-enabled", "ssh.service"), "enabled");
}

}  // namespace
}  // namespace corvane::vm
