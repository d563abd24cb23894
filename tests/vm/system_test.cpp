#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include <boost/json/serialize.hpp>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

using boost::json::array;
using boost::json::object;
using boost::json::value;

std::string requestOf(const char* command, const object& arguments) {
    return boost::json::serialize(object{{"execute", command}, {"arguments", arguments}});
}

class SystemCommands : public SharedGuestTest {
 protected:
    value answer(const std::string& request) { return parse(synchronisedHost().request(request)); }

    /// The entry of an interface, or null when it is not listed.
    value interfaceNamed(const std::string& name) {
        const value response = answer(R"({"execute":"guest-network-get-interfaces"})");
        for (const value& entry : response.at("return").as_array()) {
            if (entry.at("name").as_string() == name) {
                return entry;
            }
        }
        return nullptr;
    }
};

object ipv4(const char* address, unsigned prefix) {
    return {{"ip-address-type", "ipv4"}, {"ip-address", address}, {"prefix", prefix}};
}

object ipv6(const char* address, unsigned prefix) {
    return {{"ip-address-type", "ipv6"}, {"ip-address", address}, {"prefix", prefix}};
}

TEST_F(SystemCommands, TheLoopbackInterfaceHasBothItsAddresses) {
    EXPECT_EQ(interfaceNamed("lo"),
              (value{{"name", "lo"},
                     {"hardware-address", "0:0:0:0:0:0"},
                     {"ip-addresses", {ipv4("127.0.0.1", 8), ipv6("::1", 128)}}}));
}

/// Two interfaces with addresses of both families, made in the guest's own kernel.
class GuestInterfaces : public SystemCommands {
 protected:
    void SetUp() override {
        SystemCommands::SetUp();
        shell().check(
            "modprobe -a dummy veth; echo 1 > /proc/sys/net/ipv6/conf/default/accept_dad;"
            "echo 1 > /proc/sys/net/ipv6/conf/default/addr_gen_mode;"
            "ip link add d0 type dummy; ip link set d0 address 02:00:0a:bc:00:01;"
            "ip link add d1 type dummy; ip link set d1 address 02:00:00:00:00:02");
    }
    void TearDown() override {
        shell().check("ip link del d0; ip link del d1; ip link del v0 2>/dev/null; true");
        SystemCommands::TearDown();
    }
    array addressesOf(const std::string& name) {
        return interfaceNamed(name).at("ip-addresses").as_array();
    }
};

TEST_F(GuestInterfaces, EachAddressStandsUnderItsInterfaceWhateverOrderTheyWereGivenIn) {
    shell().check(
        "ip link set d0 up; ip link set d1 up;"
        "ip addr add 10.0.1.1/24 dev d1; ip addr add fd00::2/64 dev d1;"
        "ip addr add 10.0.0.1/16 dev d0; ip addr add fd00::1/128 dev d0;"
        "ip addr add 10.0.0.2/16 dev d0 label d0:1");
    EXPECT_EQ(interfaceNamed("d0"),
              (value{{"name", "d0"},
                     {"hardware-address", "2:0:a:bc:0:1"},
                     {"ip-addresses",
                      {ipv4("10.0.0.1", 16), ipv4("10.0.0.2", 16), ipv6("fd00::1", 128)}}}));
    EXPECT_EQ(addressesOf("d1"), (array{ipv4("10.0.1.1", 24), ipv6("fd00::2", 64)}));
}

TEST_F(GuestInterfaces, OneThatIsDownIsNotListedAndNeitherAreItsAddresses) {
    shell().check("ip addr add 10.0.0.1/16 dev d0");
    EXPECT_TRUE(interfaceNamed("d0").is_null());
}

TEST_F(GuestInterfaces, OneThatIsUpWithoutAnAddressIsNotListed) {
    shell().check("ip link set d1 up");
    EXPECT_TRUE(interfaceNamed("d1").is_null());
}

TEST_F(GuestInterfaces, APointToPointAddressIsThisEndsWithAFullPrefix) {
    shell().check("ip link set d1 up; ip addr add 10.9.0.1 peer 10.9.0.2 dev d1");
    EXPECT_EQ(addressesOf("d1"), (array{ipv4("10.9.0.1", 32)}));
}

TEST_F(GuestInterfaces, AnEndOfAPairIsListedLikeAnyOther) {
    shell().check("ip link add v0 type veth; ip link set v0 up; ip addr add 10.8.0.1/30 dev v0");
    EXPECT_EQ(addressesOf("v0"), (array{ipv4("10.8.0.1", 30)}));
}

class GuestClock : public SystemCommands {
 protected:
    void SetUp() override {
        SystemCommands::SetUp();
        before_ = shell().check("date +%s");
    }
    void TearDown() override {
        shell().check("date -s @" + before_);
        SystemCommands::TearDown();
    }

 private:
    std::string before_;
};

TEST_F(GuestClock, IsSetToTheNanosecondsThatTheHostNames) {
    EXPECT_EQ(answer(requestOf("guest-set-time", {{"time", 1900000000123456789}})),
              parse(R"({"return":{}})"));
    const std::int64_t seconds = std::stoll(shell().check("date +%s"));
    EXPECT_GE(seconds, 1900000000);
    EXPECT_LT(seconds, 1900000000 + hangLimit / std::chrono::seconds(1));
}

TEST_F(GuestClock, IsReadInNanoseconds) {
    const std::int64_t before = std::stoll(shell().check("date +%s"));
    const value time = answer(R"({"execute":"guest-get-time"})").at("return").at("time");
    const std::int64_t after = std::stoll(shell().check("date +%s"));
    EXPECT_GE(time.to_number<std::int64_t>(), before * 1'000'000'000);
    EXPECT_LT(time.to_number<std::int64_t>(), (after + 1) * 1'000'000'000);
}

TEST_F(GuestClock, StaysWhereTheKernelRefusesTheTime) {
    const value failure = errorResponse("GenericError", "failed to set time");
    EXPECT_EQ(answer(requestOf("guest-set-time", {{"time", true}})), failure);
    EXPECT_EQ(answer(requestOf("guest-set-time", {{"time", -1}})), failure);
    EXPECT_GE(shell().check("date +%s"), "1");
    const std::int64_t now = std::stoll(shell().check("date +%Y"));
    EXPECT_GT(now, 2000);
    EXPECT_LT(now, 2200);
}

TEST_F(SystemCommands, AnUnknownShutdownModeIsRefusedAndTheGuestRunsOn) {
    EXPECT_EQ(answer(requestOf("guest-shutdown", {{"mode", "Reboot"}})),
              errorResponse("GenericError", "unsupported mode"));
    EXPECT_EQ(answer(requestOf("guest-shutdown", {{"mode", 1}})),
              errorResponse("GenericError", "mode is not a string"));
    EXPECT_NE(shell()
                  .check("tail -n 1 /run/log/agent.output")
                  .find("handleGuestShutdown: mode is not a string"),
              std::string::npos);
}

TEST_F(SystemCommands, AGuestWithoutAServiceManagerHasNoSwitchOfItsRemoteLogin) {
    EXPECT_EQ(answer(requestOf("mirel-guest-set-remote-login", {{"enabled", true}})),
              errorResponse("GenericError", "failed to set remote login"));
}

/// A guest of its own for each test: it does not come back.
class GuestGoingDown : public GuestTest {
 protected:
    void SetUp() override {
        guest_ = bootGuest();
        use(*guest_);
    }

    /// How the guest has ended, in QEMU's words; says how long it took.
    std::string endAfter(const std::string& what, const std::function<void()>& act) {
        const auto start = std::chrono::steady_clock::now();
        act();
        const std::string event = machine().qmp().awaitEvent("SHUTDOWN");
        machine().awaitEnd();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        std::cout << what << " to QEMU's exit: " << took.count() << " s\n";
        return std::string(parse(event).at("data").at("reason").as_string());
    }
    std::string endAfterShutdown(const std::string& request) {
        HostClient host = synchronisedHost();
        return endAfter(request, [&] { host.send(request + '\n'); });
    }

 private:
    std::unique_ptr<VirtualMachine> guest_;
};

TEST_F(GuestGoingDown, PowersOffWithoutAMode) {
    EXPECT_EQ(endAfterShutdown(R"({"execute":"guest-shutdown"})"), "guest-shutdown");
}

TEST_F(GuestGoingDown, PowersOffToHalt) {
    EXPECT_EQ(endAfterShutdown(requestOf("guest-shutdown", {{"mode", "halt"}})), "guest-shutdown");
}

TEST_F(GuestGoingDown, PowersOffToPowerDown) {
    EXPECT_EQ(endAfterShutdown(requestOf("guest-shutdown", {{"mode", "powerdown"}})),
              "guest-shutdown");
}

TEST_F(GuestGoingDown, ResetsToReboot) {
    EXPECT_EQ(endAfterShutdown(requestOf("guest-shutdown", {{"mode", "reboot"}})), "guest-reset");
}

TEST_F(GuestGoingDown, PowersOffWhenItsPowerButtonIsPressed) {
    awaitInGuest("ls -l /proc/$(service pid)/fd | grep -c input/event; true", "1");
    EXPECT_EQ(endAfter("power button", [&] { machine().qmp().execute("system_powerdown"); }),
              "guest-shutdown");
}

}  // namespace
}  // namespace corvane::vm
