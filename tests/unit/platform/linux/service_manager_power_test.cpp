#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/linux_power_control.h"
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
constexpr char login[] = "org.freedesktop.login1";
constexpr char systemd[] = "org.freedesktop.systemd1";

/// A guest with a service manager. The kernel must not be asked: it only remembers.
class GuestWithServiceManager : public testing::Test {
 protected:
    TemporaryTree files_;
    FakeGuestServices services_;
    std::string busAddress_ = "unix:path=" + files_.path("no-bus");
    std::string directAddress_ = "unix:path=" + files_.path("private");
    milliseconds limit_ = plenty;
    int kernelCalls_ = 0;

    bool perform(PowerAction action) {
        LinuxPowerControl power({[] { return true; }, busAddress_, directAddress_},
                                {[this] { ++kernelCalls_; },
                                 [this](int) {
                                     ++kernelCalls_;
                                     return 0;
                                 }},
                                limit_);
        return power.perform(action);
    }

    /// What login1's error leads to on a bus that has login1 and systemd1.
    bool performWithLoginError(const std::string& name) {
        const PrivateBus bus;
        busAddress_ = bus.address();
        services_.errors["PowerOff"] = name;
        const FakeServer server(services_, {bus.address(), {login, systemd}});
        return perform(PowerAction::powerOff);
    }

    void TearDown() override { EXPECT_EQ(kernelCalls_, 0); }
};

const Calls powerOffAtBoth{"login1.PowerOff 0",
                           "systemd1.StartUnit poweroff.target replace-irreversibly"};

TEST_F(GuestWithServiceManager, IsPoweredOffByItsLoginManager) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {login, systemd}});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestWithServiceManager, IsRestartedByItsLoginManager) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {login, systemd}});
    EXPECT_TRUE(perform(PowerAction::restart));
    EXPECT_EQ(services_.orders(), Calls{"login1.Reboot 0"});
}

TEST_F(GuestWithServiceManager, IsPoweredOffByItWithoutALoginManager) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {systemd}});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{"systemd1.StartUnit poweroff.target replace-irreversibly"});
}

TEST_F(GuestWithServiceManager, IsRestartedByItWithoutALoginManager) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {systemd}});
    EXPECT_TRUE(perform(PowerAction::restart));
    EXPECT_EQ(services_.orders(), Calls{"systemd1.StartUnit reboot.target replace-irreversibly"});
}

TEST_F(GuestWithServiceManager, IsPoweredOffByItWhenTheLoginManagerCannotBeStarted) {
    const TemporaryTree activation;
    activation.makeFile("login.service",
                        "[D-BUS Service]\nName=org.freedesktop.login1\nExec=/bin/false\n");
    const PrivateBus bus("<servicedir>" + activation.path() + "</servicedir>");
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {systemd}});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{"systemd1.StartUnit poweroff.target replace-irreversibly"});
}

class LoginManagerThatIsNotTheOneToAsk : public GuestWithServiceManager,
                                         public testing::WithParamInterface<const char*> {};

TEST_P(LoginManagerThatIsNotTheOneToAsk, LeavesItToTheServiceManager) {
    EXPECT_TRUE(performWithLoginError(GetParam()));
    EXPECT_EQ(services_.orders(), powerOffAtBoth);
}

INSTANTIATE_TEST_SUITE_P(Errors, LoginManagerThatIsNotTheOneToAsk,
                         testing::Values("org.freedesktop.DBus.Error.UnknownObject",
                                         "org.freedesktop.DBus.Error.UnknownInterface",
                                         "org.freedesktop.DBus.Error.UnknownMethod",
                                         "org.freedesktop.login1.BlockedByInhibitorLock"));

class LoginManagerThatRefuses : public GuestWithServiceManager,
                                public testing::WithParamInterface<const char*> {};

TEST_P(LoginManagerThatRefuses, IsNotGoneRound) {
    EXPECT_FALSE(performWithLoginError(GetParam()));
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

INSTANTIATE_TEST_SUITE_P(Errors, LoginManagerThatRefuses,
                         testing::Values("org.freedesktop.DBus.Error.AccessDenied",
                                         "org.freedesktop.DBus.Error.InteractiveAuthorizationRequir"
                                         "ed",
                                         "org.freedesktop.DBus.Error.NoReply",
                                         "org.freedesktop.DBus.Error.Failed",
                                         "org.freedesktop.DBus.Error.FileExists",
                                         "org.freedesktop.login1.SleepVerbNotSupported"));

TEST_F(GuestWithServiceManager, IsNotAskedAfterALoginManagerThatHasGoneWithTheOrder) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    services_.unanswered = {"PowerOff"};
    const FakeServer systemdServer(services_, {bus.address(), {systemd}});
    std::optional<FakeServer> loginServer;
    loginServer.emplace(services_, FakeServer::OnBus{bus.address(), {login}});
    auto answer = std::async(std::launch::async, [this] { return perform(PowerAction::powerOff); });
    services_.awaitCall("login1.PowerOff");
    loginServer.reset();
    EXPECT_FALSE(answer.get());
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestWithServiceManager, IsNotAskedWhereTheBusRefusesUs) {
    const TemporaryTree activation;
    activation.makeFile("login.service",
                        "[D-BUS Service]\nName=org.freedesktop.login1\nExec=/bin/false\n");
    const PrivateBus bus("<servicedir>" + activation.path() +
                         "</servicedir><policy context='mandatory'>"
                         "<deny send_destination='org.freedesktop.login1'/></policy>");
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {systemd}});
    EXPECT_FALSE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{});
}

TEST_F(GuestWithServiceManager, IsPoweredOffByItWhenTheLoginManagerIsMasked) {
    const TemporaryTree activation;
    activation.makeFile("login.service",
                        "[D-BUS Service]\nName=org.freedesktop.login1\nExec=/bin/false\nUser=root\n"
                        "SystemdService=dbus-org.freedesktop.login1.service\n");
    const PrivateBus bus("<servicedir>" + activation.path() + "</servicedir>",
                         "--systemd-activation");
    busAddress_ = bus.address();
    services_.activationError = "org.freedesktop.DBus.Error.FileExists";
    const FakeServer server(services_, {bus.address(), {systemd}});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{"systemd1.StartUnit poweroff.target replace-irreversibly"});
    EXPECT_EQ(services_.activationRequests, 1);
}

TEST_F(GuestWithServiceManager, MayRefuseInPlaceOfItsLoginManager) {
    services_.errors["StartUnit"] = "org.freedesktop.systemd1.TransactionIsDestructive";
    EXPECT_FALSE(performWithLoginError("org.freedesktop.DBus.Error.UnknownObject"));
    EXPECT_EQ(services_.orders(), powerOffAtBoth);
}

/// A guest that is on its way down. Its service manager would take up a restart beside a power-off,
/// and do either.
class GuestOnItsWayDown : public GuestWithServiceManager {
 protected:
    static constexpr char inProgress[] = "org.freedesktop.login1.OperationInProgress";

    bool performDirectly(const std::string& queuedTarget) {
        services_.systemState = "stopping";
        services_.queuedUnits = {queuedTarget};
        const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
        return perform(PowerAction::powerOff);
    }
};

TEST_F(GuestOnItsWayDown, TakesTheSameOrderAgain) {
    services_.queuedUnits = {"poweroff.target"};
    EXPECT_TRUE(performWithLoginError(inProgress));
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestOnItsWayDown, TakesTheSameOrderAgainWhileItsProgramsMayEndTheirWork) {
    services_.preparingForShutdown = true;
    services_.scheduledShutdown = "poweroff";
    EXPECT_TRUE(performWithLoginError(inProgress));
    services_.scheduledShutdown = "reboot";
    EXPECT_FALSE(performWithLoginError(inProgress));
}

TEST_F(GuestOnItsWayDown, MayBeOnItsWayToSleepThoughItIsToGoDownLater) {
    services_.scheduledShutdown = "poweroff";
    EXPECT_FALSE(performWithLoginError(inProgress));
}

TEST_F(GuestOnItsWayDown, TakesNoOtherOrder) {
    services_.queuedUnits = {"reboot.target"};
    EXPECT_FALSE(performWithLoginError(inProgress));
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestOnItsWayDown, OrToSleepTakesNoOrder) {
    EXPECT_FALSE(performWithLoginError(inProgress));
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestOnItsWayDown, TakesTheSameOrderAgainWithoutALoginManager) {
    EXPECT_TRUE(performDirectly("poweroff.target"));
    EXPECT_EQ(services_.orders(), Calls{});
}

TEST_F(GuestOnItsWayDown, TakesNoOtherOrderWithoutALoginManager) {
    EXPECT_FALSE(performDirectly("reboot.target"));
    EXPECT_EQ(services_.orders(), Calls{});
}

TEST_F(GuestWithServiceManager, IsReachedOnItsOwnSocketWithoutABus) {
    const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_TRUE(perform(PowerAction::restart));
    EXPECT_EQ(services_.orders(), (Calls{"systemd1.StartUnit poweroff.target replace-irreversibly",
                                         "systemd1.StartUnit reboot.target replace-irreversibly"}));
}

TEST_F(GuestWithServiceManager, IsReachedOnItsOwnSocketWhereTheBusHasGone) {
    SilentSocket gone(SilentSocket::Queue::roomy);
    gone.stopListening();
    busAddress_ = gone.address();
    const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
    EXPECT_TRUE(perform(PowerAction::powerOff));
    EXPECT_EQ(services_.orders(), Calls{"systemd1.StartUnit poweroff.target replace-irreversibly"});
}

TEST_F(GuestWithServiceManager, MayRefuseOnItsOwnSocket) {
    services_.errors["StartUnit"] = "org.freedesktop.systemd1.TransactionIsDestructive";
    const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
    EXPECT_FALSE(perform(PowerAction::restart));
    EXPECT_EQ(services_.orders().size(), 1U);
}

TEST_F(GuestWithServiceManager, IsNotEndedByTheKernelWhenNobodyCanBeReached) {
    EXPECT_FALSE(perform(PowerAction::powerOff));
    EXPECT_FALSE(perform(PowerAction::restart));
}

TEST_F(GuestWithServiceManager, IsNotEndedByTheKernelWhenTheBusHasNeither) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    EXPECT_FALSE(perform(PowerAction::powerOff));
}

TEST_F(GuestWithServiceManager, ALoginManagerThatHangsIsARefusalInTime) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    services_.unanswered = {"PowerOff"};
    const FakeServer server(services_, {bus.address(), {login, systemd}});
    limit_ = std::chrono::seconds(1);
    const auto start = steady_clock::now();
    EXPECT_FALSE(perform(PowerAction::powerOff));
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(services_.orders(), Calls{"login1.PowerOff 0"});
}

TEST_F(GuestWithServiceManager, AServiceManagerThatHangsIsARefusalInTime) {
    services_.unanswered = {"StartUnit"};
    const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
    limit_ = std::chrono::seconds(1);
    const auto start = steady_clock::now();
    EXPECT_FALSE(perform(PowerAction::powerOff));
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(services_.orders().size(), 1U);
}

class BusThatHangs : public GuestWithServiceManager {
 protected:
    /// The socket beside the bus would answer. It must not be asked.
    void expectRefusal(const std::string& address) {
        const FakeServer server(services_, FakeServer::OnSocket{files_.path("private")});
        busAddress_ = address;
        limit_ = milliseconds(100);
        const auto start = steady_clock::now();
        EXPECT_FALSE(perform(PowerAction::powerOff));
        EXPECT_LT(steady_clock::now() - start, plenty);
        EXPECT_EQ(services_.orders(), Calls{});
    }
};

TEST_F(BusThatHangs, IsNotGoneRoundWhenItsDaemonIsStopped) {
    const PrivateBus bus;
    bus.stopAnswering();
    expectRefusal(bus.address());
}

TEST_F(BusThatHangs, IsNotGoneRoundWhenNobodyTakesCallersIn) {
    const SilentSocket socket(SilentSocket::Queue::roomy);
    expectRefusal(socket.address());
}

TEST_F(BusThatHangs, IsNotGoneRoundWhenTooManyWait) {
    const SilentSocket socket(SilentSocket::Queue::full);
    expectRefusal(socket.address());
}

TEST_F(GuestWithServiceManager, LeavesNoDescriptorBehind) {
    const PrivateBus bus;
    const SilentSocket silent(SilentSocket::Queue::roomy);
    const FakeServer server(services_, {bus.address(), {login, systemd}});
    const std::size_t before = countDescriptors();
    busAddress_ = bus.address();
    EXPECT_TRUE(perform(PowerAction::powerOff));
    busAddress_ = silent.address();
    limit_ = milliseconds(100);
    EXPECT_FALSE(perform(PowerAction::powerOff));
    busAddress_ = "unix:path=" + files_.path("no-bus");
    EXPECT_FALSE(perform(PowerAction::powerOff));
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(GuestWithServiceManager, TakesOrdersFromTwoThreadsAtOnce) {
    const PrivateBus bus;
    busAddress_ = bus.address();
    const FakeServer server(services_, {bus.address(), {login, systemd}});
    LinuxPowerControl power({[] { return true; }, busAddress_, directAddress_},
                            {[] {}, [](int) { return -1; }}, plenty);
    constexpr int rounds = 20;
    int agreed = 0;
    std::thread other([&] {
        for (int i = 0; i < rounds; ++i) {
            agreed += power.perform(PowerAction::restart) ? 1 : 0;
        }
    });
    for (int i = 0; i < rounds; ++i) {
        EXPECT_TRUE(power.perform(PowerAction::powerOff));
    }
    other.join();
    EXPECT_EQ(agreed, rounds);
    EXPECT_EQ(services_.orders().size(), 2U * rounds);
}

}  // namespace
}  // namespace corvane
