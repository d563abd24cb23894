#include "platform/linux/linux_remote_login.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/descriptor_count.h"
#include "tests/unit/platform/linux/fake_guest_services.h"
#include "tests/unit/platform/linux/private_bus.h"
#include "tests/unit/platform/linux/silent_socket.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

using Calls = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds plenty = std::chrono::seconds(20);
constexpr char systemd[] = "org.freedesktop.systemd1";
constexpr char polkit[] = "org.freedesktop.PolicyKit1";
constexpr char manageUnitFiles[] = "org.freedesktop.systemd1.manage-unit-files";
constexpr char manageUnits[] = "org.freedesktop.systemd1.manage-units";

/// A guest whose bus has systemd1, and polkit if that is wanted.
class RemoteLoginTest : public testing::Test {
 protected:
    TemporaryTree files_;
    FakeGuestServices services_;
    std::string busAddress_ = "unix:path=" + files_.path("no-bus");
    bool serviceManagerRuns_ = true;
    milliseconds limit_ = plenty;

    LinuxRemoteLogin remoteLogin(bool isRoot = true) {
        return {{serviceManagerRuns_ ? [] { return true; } : [] { return false; }, busAddress_,
                 "unix:path=" + files_.path("private")},
                isRoot,
                {limit_, limit_, limit_}};
    }

    void serve(const std::vector<std::string>& names = {systemd}) {
        busAddress_ = bus_.emplace().address();
        server_.emplace(services_, FakeServer::OnBus{busAddress_, names});
    }

    void serveDirectly() {
        server_.emplace(services_, FakeServer::OnSocket{files_.path("private")});
    }

    FakeServer& server() { return *server_; }
    PrivateBus& bus() { return *bus_; }

    /// The calls that change something, without the answers that led to them.
    Calls changes() {
        Calls found = services_.orders();
        std::erase_if(found, [](const std::string& call) {
            return call.starts_with("systemd1.GetUnitFileState") || call == "systemd1.Subscribe";
        });
        return found;
    }

 private:
    std::optional<PrivateBus> bus_;
    std::optional<FakeServer> server_;
};

Calls switchedOn(const std::string& unit) {
    return {"systemd1.StartUnit " + unit + " replace",
            "systemd1.EnableUnitFiles [ " + unit + " ] 0 0", "systemd1.Reload"};
}

// --- isAvailable --------------------------------------------------------------------------------

TEST_F(RemoteLoginTest, IsAvailableWithAnSshServerToSwitch) {
    services_.fileStates["ssh.service"] = "disabled";
    serve();
    EXPECT_TRUE(remoteLogin().isAvailable());
}

TEST_F(RemoteLoginTest, IsAvailableWithEachUnitAlone) {
    for (const char* unit : {"ssh.service", "sshd.service", "ssh.socket", "sshd.socket"}) {
        services_.fileStates = {{unit, "enabled"}};
        serve();
        EXPECT_TRUE(remoteLogin().isAvailable()) << unit;
    }
}

TEST_F(RemoteLoginTest, IsNotAvailableWithoutAnSshServer) {
    services_.fileStates["cron.service"] = "enabled";
    serve();
    EXPECT_FALSE(remoteLogin().isAvailable());
    EXPECT_EQ(services_.calls().size(), 4U);
}

TEST_F(RemoteLoginTest, IsNotAvailableWithUnitsThatMayNotBeSwitched) {
    for (const char* state : {"masked", "masked-runtime", "alias", "bad"}) {
        services_.fileStates = {{"ssh.service", state}, {"ssh.socket", state}};
        serve();
        EXPECT_FALSE(remoteLogin().isAvailable()) << state;
    }
}

TEST_F(RemoteLoginTest, IsAvailableWithoutABusForRootAlone) {
    services_.fileStates["sshd.service"] = "enabled";
    serveDirectly();
    EXPECT_TRUE(remoteLogin().isAvailable());
    // polkit is on the bus alone.
    EXPECT_FALSE(remoteLogin(false).isAvailable());
}

TEST_F(RemoteLoginTest, IsAvailableToOthersThanRootWithPolkitAlone) {
    services_.fileStates["ssh.service"] = "enabled";
    serve();
    EXPECT_FALSE(remoteLogin(false).isAvailable());
    serve({systemd, polkit});
    EXPECT_TRUE(remoteLogin(false).isAvailable());
}

TEST_F(RemoteLoginTest, IsNotAvailableWithoutAServiceManager) {
    services_.fileStates["ssh.service"] = "enabled";
    serve();
    serviceManagerRuns_ = false;
    EXPECT_FALSE(remoteLogin().isAvailable());
    EXPECT_FALSE(remoteLogin().authorise());
    remoteLogin().setEnabled(true);
    EXPECT_EQ(services_.calls(), Calls{});
}

TEST_F(RemoteLoginTest, IsNotAvailableWhenNobodyCanBeReached) {
    EXPECT_FALSE(remoteLogin().isAvailable());
    EXPECT_FALSE(remoteLogin().authorise());
    remoteLogin().setEnabled(true);
}

TEST_F(RemoteLoginTest, IsNotAvailableWhenTheServiceManagerHangs) {
    services_.fileStates["ssh.service"] = "enabled";
    services_.unanswered = {"GetUnitFileState", "Ping"};
    serve();
    limit_ = milliseconds(500);
    const auto start = steady_clock::now();
    EXPECT_FALSE(remoteLogin().isAvailable());
    EXPECT_FALSE(remoteLogin().authorise());
    remoteLogin().setEnabled(true);
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(changes(), Calls{"DBus.Ping"});
}

TEST_F(RemoteLoginTest, IsNotAvailableWhenTheBusHangs) {
    serveDirectly();
    services_.fileStates["ssh.service"] = "enabled";
    const PrivateBus stopped;
    stopped.stopAnswering();
    busAddress_ = stopped.address();
    limit_ = milliseconds(100);
    const auto start = steady_clock::now();
    EXPECT_FALSE(remoteLogin().isAvailable());
    EXPECT_FALSE(remoteLogin().authorise());
    remoteLogin().setEnabled(false);
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(services_.calls(), Calls{});
}

// --- authorise ----------------------------------------------------------------------------------

TEST_F(RemoteLoginTest, RootIsAuthorisedByTheServiceManagersAnswer) {
    serve();
    EXPECT_TRUE(remoteLogin().authorise());
    EXPECT_EQ(services_.calls(), Calls{});
}

TEST_F(RemoteLoginTest, RootIsAuthorisedWithoutABus) {
    serveDirectly();
    EXPECT_TRUE(remoteLogin().authorise());
    EXPECT_FALSE(remoteLogin(false).authorise());
}

TEST_F(RemoteLoginTest, RootIsNotAuthorisedWhenTheBusHasNoServiceManager) {
    serve({polkit});
    EXPECT_FALSE(remoteLogin().authorise());
}

TEST_F(RemoteLoginTest, OthersNeedPolkitsConsentToBothActions) {
    services_.allowedActions = {manageUnitFiles, manageUnits};
    serve({systemd, polkit});
    EXPECT_TRUE(remoteLogin(false).authorise());
    const Calls calls = services_.calls();
    ASSERT_EQ(calls.size(), 2U);
    // We are told by our name on the bus; polkit is to ask nobody (flags 0).
    const std::string beginning = "PolicyKit1.CheckAuthorization [ system-bus-name [ [ name [ :1.";
    for (const std::string& call : calls) {
        EXPECT_TRUE(call.starts_with(beginning)) << call;
    }
    EXPECT_TRUE(calls[0].ends_with(std::string("] ] ] ] ") + manageUnitFiles + " [ ] 0 "))
        << calls[0];
    EXPECT_TRUE(calls[1].ends_with(std::string("] ] ] ] ") + manageUnits + " [ ] 0 ")) << calls[1];
}

TEST_F(RemoteLoginTest, OthersAreNotAuthorisedByOneOfTheActions) {
    services_.allowedActions = {manageUnits};
    serve({systemd, polkit});
    EXPECT_FALSE(remoteLogin(false).authorise());
    services_.allowedActions = {manageUnitFiles};
    serve({systemd, polkit});
    EXPECT_FALSE(remoteLogin(false).authorise());
}

TEST_F(RemoteLoginTest, OthersAreNotAuthorisedWithoutPolkit) {
    serve();
    EXPECT_FALSE(remoteLogin(false).authorise());
}

TEST_F(RemoteLoginTest, OthersAreNotAuthorisedWhenPolkitRefusesOrHangs) {
    services_.allowedActions = {manageUnitFiles, manageUnits};
    services_.errors["CheckAuthorization"] = "org.freedesktop.PolicyKit1.Error.NotAuthorized";
    serve({systemd, polkit});
    EXPECT_FALSE(remoteLogin(false).authorise());
    services_.errors.clear();
    services_.unanswered = {"CheckAuthorization"};
    serve({systemd, polkit});
    limit_ = milliseconds(500);
    const auto start = steady_clock::now();
    EXPECT_FALSE(remoteLogin(false).authorise());
    EXPECT_LT(steady_clock::now() - start, plenty);
}

// --- setEnabled ---------------------------------------------------------------------------------

TEST_F(RemoteLoginTest, OnEnablesAndStartsTheService) {
    services_.fileStates = {{"ssh.service", "disabled"}, {"ssh.socket", "disabled"}};
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.service"));
}

TEST_F(RemoteLoginTest, OnKnowsTheOtherNameOfTheService) {
    services_.fileStates = {{"sshd.service", "disabled"}, {"sshd.socket", "disabled"}};
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("sshd.service"));
}

TEST_F(RemoteLoginTest, OnDoesNotTakeAnAliasForAService) {
    services_.fileStates = {{"ssh.service", "enabled"}, {"sshd.service", "alias"}};
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.service"));
}

TEST_F(RemoteLoginTest, OnTakesTheSocketWhereThatIsEnabled) {
    for (const char* state : {"enabled", "enabled-runtime"}) {
        services_.fileStates = {{"ssh.service", "disabled"}, {"ssh.socket", state}};
        const std::size_t before = changes().size();
        serve();
        remoteLogin().setEnabled(true);
        const Calls all = changes();
        EXPECT_EQ(Calls(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
                  switchedOn("ssh.socket"))
            << state;
    }
}

TEST_F(RemoteLoginTest, OnTakesTheSocketWhereThatIsActive) {
    services_.fileStates = {{"sshd.service", "disabled"}, {"sshd.socket", "disabled"}};
    services_.activeStates["sshd.socket"] = "active";
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("sshd.socket"));
}

TEST_F(RemoteLoginTest, OnDoesNotTakeASocketForActiveThatHasFailed) {
    services_.fileStates = {{"ssh.service", "disabled"}, {"ssh.socket", "disabled"}};
    services_.activeStates["ssh.socket"] = "failed";
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.service"));
}

TEST_F(RemoteLoginTest, OnTakesTheSocketWhereThereIsNoService) {
    services_.fileStates = {{"ssh.socket", "disabled"}, {"ssh.service", "masked"}};
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.socket"));
}

TEST_F(RemoteLoginTest, OnChangesNothingWithoutAnSshServer) {
    services_.fileStates["ssh.service"] = "masked";
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), Calls{});
}

TEST_F(RemoteLoginTest, OnStartsTheServiceAlsoWhereItCannotBeEnabled) {
    services_.fileStates["ssh.service"] = "generated";
    services_.errors = {{"EnableUnitFiles", "org.freedesktop.DBus.Error.InvalidArgs"},
                        {"Reload", "org.freedesktop.DBus.Error.AccessDenied"}};
    serve();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.service"));
}

TEST_F(RemoteLoginTest, OffDisablesAndStopsEverythingSocketsFirst) {
    services_.fileStates = {{"ssh.service", "enabled"},
                            {"sshd.service", "disabled"},
                            {"ssh.socket", "enabled"},
                            {"sshd.socket", "static"}};
    serve();
    remoteLogin().setEnabled(false);
    EXPECT_EQ(
        changes(),
        (Calls{"systemd1.StopUnit ssh.socket replace", "systemd1.StopUnit sshd.socket replace",
               "systemd1.StopUnit ssh.service replace", "systemd1.StopUnit sshd.service replace",
               "systemd1.DisableUnitFiles [ ssh.socket ] 0",
               "systemd1.DisableUnitFiles [ sshd.socket ] 0",
               "systemd1.DisableUnitFiles [ ssh.service ] 0",
               "systemd1.DisableUnitFiles [ sshd.service ] 0", "systemd1.Reload"}));
}

TEST_F(RemoteLoginTest, OffLeavesMaskedUnitsAndAliasesAlone) {
    services_.fileStates = {{"ssh.service", "enabled"},
                            {"sshd.service", "alias"},
                            {"ssh.socket", "masked"},
                            {"sshd.socket", "masked-runtime"}};
    serve();
    remoteLogin().setEnabled(false);
    EXPECT_EQ(changes(), (Calls{"systemd1.StopUnit ssh.service replace",
                                "systemd1.DisableUnitFiles [ ssh.service ] 0", "systemd1.Reload"}));
}

TEST_F(RemoteLoginTest, OffGoesOnAfterFailures) {
    services_.fileStates = {{"ssh.service", "enabled"}, {"ssh.socket", "enabled"}};
    services_.errors = {{"DisableUnitFiles", "org.freedesktop.DBus.Error.AccessDenied"},
                        {"StopUnit", "org.freedesktop.systemd1.NoSuchUnit"}};
    serve();
    remoteLogin().setEnabled(false);
    const Calls calls = changes();
    EXPECT_EQ(calls.back(), "systemd1.Reload");
    EXPECT_EQ(calls.size(), 5U);
}

TEST_F(RemoteLoginTest, IsSwitchedWithoutABusToo) {
    services_.fileStates["ssh.service"] = "disabled";
    serveDirectly();
    remoteLogin().setEnabled(true);
    EXPECT_EQ(changes(), switchedOn("ssh.service"));
}

/// What is waited for is the end of the jobs.
class RemoteLoginWithSlowServer : public RemoteLoginTest {
 protected:
    void expectWait(bool enabled) {
        services_.fileStates = {{"ssh.service", "enabled"}, {"ssh.socket", "enabled"}};
        services_.jobsEndAtOnce = false;
        serve();
        auto switching = std::async(std::launch::async, [login = remoteLogin(), enabled]() mutable {
            login.setEnabled(enabled);
        });
        services_.awaitCall("systemd1.Reload");
        // Nothing but the end of the jobs ends the waiting. Too short a look would only be kind to
        // a switch that does not wait.
        EXPECT_EQ(switching.wait_for(milliseconds(300)), std::future_status::timeout);
        server().endJobs();
        const auto start = steady_clock::now();
        switching.get();
        EXPECT_LT(steady_clock::now() - start, plenty / 2);
    }
};

TEST_F(RemoteLoginWithSlowServer, IsSwitchedOffWhenTheServerHasStopped) {
    expectWait(false);
}

TEST_F(RemoteLoginWithSlowServer, IsSwitchedOnWhenTheServerHasStarted) {
    expectWait(true);
}

TEST_F(RemoteLoginTest, AServiceManagerThatTakesLongToReadItsUnitsHasStoppedTheServer) {
    int rounds = 0;
    for (const char* method : {"Reload", "DisableUnitFiles"}) {
        services_.fileStates["ssh.service"] = "enabled";
        services_.unanswered = {method};
        serve();
        limit_ = std::chrono::seconds(1);
        remoteLogin().setEnabled(false);
        const Calls calls = changes();
        const auto stops = std::ranges::count(calls, "systemd1.StopUnit ssh.service replace");
        EXPECT_EQ(stops, ++rounds) << method;
    }
}

TEST_F(RemoteLoginTest, AServerThatDoesNotStopIsNotWaitedForWithoutEnd) {
    services_.fileStates["ssh.service"] = "enabled";
    services_.jobsEndAtOnce = false;
    serve();
    limit_ = std::chrono::seconds(1);
    const auto start = steady_clock::now();
    remoteLogin().setEnabled(false);
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(changes().front(), "systemd1.StopUnit ssh.service replace");
}

TEST_F(RemoteLoginTest, LeavesNoDescriptorBehind) {
    services_.fileStates = {{"ssh.service", "enabled"}, {"ssh.socket", "enabled"}};
    services_.allowedActions = {manageUnitFiles, manageUnits};
    serve({systemd, polkit});
    const std::size_t before = countDescriptors();
    LinuxRemoteLogin login = remoteLogin(false);
    EXPECT_TRUE(login.isAvailable());
    EXPECT_TRUE(login.authorise());
    login.setEnabled(true);
    login.setEnabled(false);
    EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
}  // namespace corvane
