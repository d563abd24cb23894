#include "platform/linux/system_bus.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/descriptor_count.h"
#include "tests/unit/platform/linux/fake_guest_services.h"
#include "tests/unit/platform/linux/private_bus.h"
#include "tests/unit/platform/linux/silent_socket.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Far more than is needed where somebody answers, far less than the library's own limits (25 and 90
// seconds) where nobody does.
constexpr milliseconds plenty = std::chrono::seconds(20);
constexpr milliseconds soon(100);

SystemBus::TimePoint after(milliseconds limit) {
    return steady_clock::now() + limit;
}

constexpr BusMethod method(const char* member) {
    return {"org.freedesktop.systemd1", "/x", "org.freedesktop.systemd1.Manager", member};
}

int errorOfConnecting(const std::string& address, milliseconds limit) {
    return SystemBus::connect(address, SystemBus::Other::bus, after(limit)).error();
}

TEST(SystemBus, ABusGivesANameOfOurOwn) {
    const PrivateBus daemon;
    auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(bus.ok());
    EXPECT_TRUE(bus.value().isBus());
    ASSERT_NE(bus.value().uniqueName(), nullptr);
    EXPECT_EQ(bus.value().uniqueName()[0], ':');
}

TEST(SystemBus, AServiceOnItsOwnSocketGivesNone) {
    const TemporaryTree files;
    FakeGuestServices services;
    const FakeServer server(services, FakeServer::OnSocket{files.path("private")});
    auto bus = SystemBus::connect("unix:path=" + files.path("private"), SystemBus::Other::service,
                                  after(plenty));
    ASSERT_TRUE(bus.ok());
    EXPECT_FALSE(bus.value().isBus());
    EXPECT_EQ(bus.value().uniqueName(), nullptr);
    EXPECT_TRUE(bus.value().call(method("Reload"), "").ok());
    EXPECT_EQ(services.calls(), std::vector<std::string>{"systemd1.Reload"});
}

TEST(SystemBus, ACallBringsItsValuesAndTheAnswerBack) {
    const PrivateBus daemon;
    FakeGuestServices services;
    services.fileStates["ssh.service"] = "enabled";
    const FakeServer server(services, {daemon.address(), {"org.freedesktop.systemd1"}});
    auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(bus.ok());
    const BusReply reply = bus.value().call(method("GetUnitFileState"), "s", "ssh.service");
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ(reply.errorName(), "");
    const char* state = nullptr;
    ASSERT_GT(sd_bus_message_read(reply.message.get(), "s", &state), 0);
    EXPECT_STREQ(state, "enabled");
}

TEST(SystemBus, AnErrorKeepsItsName) {
    const PrivateBus daemon;
    FakeGuestServices services;
    services.errors["Reload"] = "org.example.Error";
    const FakeServer server(services, {daemon.address(), {"org.freedesktop.systemd1"}});
    auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(bus.ok());
    const BusReply reply = bus.value().call(method("Reload"), "");
    EXPECT_FALSE(reply.ok());
    EXPECT_EQ(reply.errorName(), "org.example.Error");
}

TEST(SystemBus, AServiceThatIsNotThereIsAnErrorOfTheBus) {
    const PrivateBus daemon;
    auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(bus.ok());
    EXPECT_EQ(bus.value().call(method("Reload"), "").errorName(),
              "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST(SystemBus, AServiceThatDoesNotAnswerIsGivenUpAtTheDeadline) {
    const PrivateBus daemon;
    FakeGuestServices services;
    services.unanswered = {"Reload"};
    const FakeServer server(services, {daemon.address(), {"org.freedesktop.systemd1"}});
    const auto start = steady_clock::now();
    auto bus =
        SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(std::chrono::seconds(1)));
    ASSERT_TRUE(bus.ok());
    EXPECT_FALSE(bus.value().call(method("Reload"), "").ok());
    // The time is over: nothing more is even sent.
    EXPECT_FALSE(bus.value().call(method("StartUnit"), "ss", "a.service", "replace").ok());
    EXPECT_EQ(bus.value().awaitMessage(), nullptr);
    EXPECT_LT(steady_clock::now() - start, plenty);
    EXPECT_EQ(services.calls(), std::vector<std::string>{"systemd1.Reload"});
}

TEST(SystemBus, ABusThatDoesNotAnswerIsGivenUpAtTheDeadline) {
    const PrivateBus daemon;
    daemon.stopAnswering();
    const auto start = steady_clock::now();
    EXPECT_EQ(errorOfConnecting(daemon.address(), soon), ETIMEDOUT);
    EXPECT_LT(steady_clock::now() - start, plenty);
}

TEST(SystemBus, ASocketThatNobodyReadsIsGivenUpAtTheDeadline) {
    const SilentSocket socket(SilentSocket::Queue::roomy);
    const auto start = steady_clock::now();
    EXPECT_EQ(errorOfConnecting(socket.address(), soon), ETIMEDOUT);
    EXPECT_LT(steady_clock::now() - start, plenty);
}

TEST(SystemBus, AFullQueueOfCallersIsAFailureAtOnce) {
    const SilentSocket socket(SilentSocket::Queue::full);
    const auto start = steady_clock::now();
    EXPECT_EQ(errorOfConnecting(socket.address(), std::chrono::minutes(1)), EAGAIN);
    EXPECT_LT(steady_clock::now() - start, plenty);
}

TEST(SystemBus, ABusThatStopsAfterItHasLetUsInIsGivenUpAtTheDeadline) {
    const PrivateBus daemon;
    const auto start = steady_clock::now();
    {
        auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus,
                                      after(std::chrono::seconds(1)));
        ASSERT_TRUE(bus.ok());
        daemon.stopAnswering();
        EXPECT_FALSE(bus.value().call(method("Reload"), "").ok());
    }
    EXPECT_LT(steady_clock::now() - start, plenty);
}

TEST(SystemBus, ABusThatEndsIsAFailureBeforeTheDeadline) {
    auto daemon = std::make_unique<PrivateBus>();
    auto bus =
        SystemBus::connect(daemon->address(), SystemBus::Other::bus, after(std::chrono::hours(1)));
    ASSERT_TRUE(bus.ok());
    daemon.reset();
    EXPECT_FALSE(bus.value().call(method("Reload"), "").ok());
    // What came before the end, and libsystemd's own message about it, are still read.
    while (bus.value().awaitMessage() != nullptr) {
    }
}

TEST(SystemBus, NobodyThereIsToldApart) {
    const TemporaryTree files;
    EXPECT_EQ(errorOfConnecting("unix:path=" + files.path("none"), plenty), ENOENT);
    SilentSocket socket(SilentSocket::Queue::roomy);
    socket.stopListening();
    EXPECT_EQ(errorOfConnecting(socket.address(), plenty), ECONNREFUSED);
}

TEST(SystemBus, AddressesThatStartProgramsOrLookNamesUpAreRefused) {
    const TemporaryTree files;
    const std::string program =
        "unixexec:path=/usr/bin/touch,argv0=touch,argv1=" + files.path("started");
    const PrivateBus daemon;
    for (const std::string& address :
         {program, daemon.address() + ";" + program, std::string("tcp:host=localhost,port=1"),
          std::string("x-machine-unix:pid=1"), std::string()}) {
        EXPECT_EQ(errorOfConnecting(address, plenty), EPROTONOSUPPORT) << address;
    }
    EXPECT_FALSE(std::filesystem::exists(files.path("started")));
}

TEST(SystemBus, OfSeveralAddressesTheFirstThatAnswersIsTaken) {
    const TemporaryTree files;
    const PrivateBus daemon;
    EXPECT_EQ(errorOfConnecting("unix:path=" + files.path("none") + ";" + daemon.address(), plenty),
              0);
}

TEST(SystemBus, MessagesThatAreNoAnswersAreKeptForTheirReader) {
    const PrivateBus daemon;
    FakeGuestServices services;
    const FakeServer server(services, {daemon.address(), {"org.freedesktop.systemd1"}});
    auto connected = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(connected.ok());
    SystemBus& bus = connected.value();
    ASSERT_TRUE(bus.call({"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                          "AddMatch"},
                         "s", "type='signal',member='JobRemoved'")
                    .ok());
    ASSERT_TRUE(bus.call(method("Subscribe"), "").ok());
    // Its signal comes before the answer to the call after it.
    ASSERT_TRUE(bus.call(method("StartUnit"), "ss", "a.service", "replace").ok());
    ASSERT_TRUE(bus.call(method("Reload"), "").ok());
    for (;;) {
        const BusMessage message = bus.awaitMessage();
        ASSERT_NE(message, nullptr);
        if (sd_bus_message_is_signal(message.get(), nullptr, "JobRemoved") > 0) {
            break;
        }
    }
}

TEST(SystemBus, NothingStaysOpen) {
    const TemporaryTree files;
    const PrivateBus daemon;
    const SilentSocket silent(SilentSocket::Queue::roomy);
    const std::size_t before = countDescriptors();
    {
        auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
        ASSERT_TRUE(bus.ok());
        EXPECT_EQ(countDescriptors(), before + 1);
        EXPECT_FALSE(bus.value().call(method("Reload"), "").ok());
    }
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_NE(errorOfConnecting(silent.address(), soon), 0);
    EXPECT_NE(errorOfConnecting("unix:path=" + files.path("none"), soon), 0);
    EXPECT_EQ(countDescriptors(), before);
}

/// Our sockets: descriptor numbers with the kernel's names for them.
std::map<int, std::string> openSockets() {
    std::map<int, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(entry.path(), ignored);
        if (target.starts_with("socket:")) {
            found[std::stoi(entry.path().filename())] = target;
        }
    }
    return found;
}

TEST(SystemBus, ItsDescriptorIsNotInherited) {
    const PrivateBus daemon;
    const auto before = openSockets();
    auto bus = SystemBus::connect(daemon.address(), SystemBus::Other::bus, after(plenty));
    ASSERT_TRUE(bus.ok());
    auto added = openSockets();
    std::erase_if(added, [&](const auto& socket) { return before.contains(socket.first); });
    ASSERT_EQ(added.size(), 1U);
    EXPECT_EQ(::fcntl(added.begin()->first, F_GETFD), FD_CLOEXEC);
}

}  // namespace
}  // namespace corvane
