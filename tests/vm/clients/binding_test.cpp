// The agent under a program that uses libvirt's Python binding.
#include <ctime>
#include <string>

#include <boost/json/parse.hpp>

#include "tests/vm/clients/binding_client.h"
#include "tests/vm/clients/clients_fixture.h"
#include "tests/vm/support/base64.h"
#include "tests/vm/support/checksum.h"

namespace corvane::vm {
namespace {

using boost::json::array;
using boost::json::object;
using boost::json::value;

// libvirt's numbers of errors.
constexpr int internalError = 1;
constexpr int noHostname = 108;
constexpr int agentUnresponsive = 86;

class Binding : public ClientsTest {
 protected:
    void SetUp() override {
        ClientsTest::SetUp();
        client_.emplace(daemon(), guest().name());
    }

    BindingClient& client() { return *client_; }

    value refusal(int code, const std::string& message) {
        return object{{"code", code}, {"message", message}};
    }
    value unknown(const std::string& command) {
        return refusal(internalError, "internal error: unable to execute QEMU agent command '" +
                                          command + "': Invalid command '" + command + "'");
    }

 private:
    std::optional<BindingClient> client_;
};

TEST_F(Binding, PingIsAnswered) {
    EXPECT_EQ(client().check({"agent", R"({"execute":"guest-ping"})", 60}),
              (object{{"return", object{}}}));
}

TEST_F(Binding, GetsTheInterfacesWithTheirAddresses) {
    const value interfaces =
        client().check({"interfaceAddresses", "VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_AGENT"});
    EXPECT_EQ(interfaces, boost::json::parse(R"({
        "lo": {"hwaddr": "0:0:0:0:0:0", "addrs": [
            {"type": 0, "addr": "127.0.0.1", "prefix": 8},
            {"type": 1, "addr": "::1", "prefix": 128}]},
        "dummy0": {"hwaddr": "52:54:0:a:b:c", "addrs": [
            {"type": 0, "addr": "192.0.2.5", "prefix": 24},
            {"type": 1, "addr": "2001:db8::5", "prefix": 64},
            {"type": 1, "addr": "fe80::5054:ff:fe0a:b0c", "prefix": 64}]}})"));
}

TEST_F(Binding, GetsOfGuestInfoTheInterfacesAlone) {
    const value info = client().check({"guestInfo"});
    EXPECT_EQ(info.at("if.count"), 2);
    EXPECT_EQ(info.at("if.1.name"), "dummy0");
    for (const auto& [key, unused] : info.as_object()) {
        EXPECT_TRUE(key.starts_with("if.")) << key;
    }
    EXPECT_EQ(client().call({"guestInfo", "VIR_DOMAIN_GUEST_INFO_OS"}),
              unknown("guest-get-osinfo"));
}

TEST_F(Binding, SetsTheClockAndCannotReadIt) {
    EXPECT_EQ(client().check({"setTime", object{{"seconds", 1700000000}, {"nseconds", 5}}}), 0);
    EXPECT_EQ(shell().check("date +%s | cut -c 1-7"), "1700000");
    EXPECT_EQ(client().check({"setTime", object{{"seconds", std::time(nullptr)}}}), 0);
    EXPECT_EQ(client().call({"getTime"}),
              refusal(internalError, "internal error: malformed return value"));
}

TEST_F(Binding, IsToldWhatTheAgentDoesNotKnow) {
    EXPECT_EQ(client().call({"hostname", "VIR_DOMAIN_GET_HOSTNAME_AGENT"}),
              refusal(noHostname, "no hostname found: no hostname found for domain debian"));
    EXPECT_EQ(client().call({"fsInfo"}), unknown("guest-get-fsinfo"));
    EXPECT_EQ(client().call({"fsFreeze"}), unknown("guest-fsfreeze-freeze"));
    EXPECT_EQ(client().call({"fsThaw"}), unknown("guest-fsfreeze-thaw"));
    EXPECT_EQ(client().call({"fSTrim", nullptr, 0}), unknown("guest-fstrim"));
    // The binding does not make an error of libvirt's into one of its own here.
    EXPECT_EQ(client().call({"guestVcpus"}), (object{{"result", nullptr}}));
    EXPECT_EQ(client().call({"setUserPassword", "root", "secret"}),
              unknown("guest-set-user-password"));
    EXPECT_EQ(client().call({"authorizedSSHKeysGet", "root"}),
              unknown("guest-ssh-get-authorized-keys"));
    EXPECT_EQ(client().call({"pMSuspendForDuration", 0, 0}), unknown("guest-suspend-ram"));
    expectServed();
}

TEST_F(Binding, RunsProgramsAndFetchesTheirOutput) {
    for (int number = 0; number < 20; ++number) {
        const value started = client().request(
            "guest-exec", {{"path", "/bin/sh"},
                           {"arg", {"-c", "echo $0; exit $0", std::to_string(number)}},
                           {"capture-output", true}});
        value status;
        do {
            status = client().request("guest-exec-status", {{"pid", started.at("pid")}});
        } while (!status.at("exited").as_bool());
        EXPECT_EQ(status.at("exitcode"), number);
        EXPECT_EQ(decodeBase64(status.at("out-data").as_string()), std::to_string(number) + '\n');
    }
}

TEST_F(Binding, MovesAFileInPiecesAndBackInOneAnswer) {
    constexpr std::size_t pieceSize = 100'000;
    const std::string path = "/root/by-binding";
    std::string bytes;
    for (int number = 0; bytes.size() < 3'000'000; ++number) {
        bytes += std::to_string(number * 7919LL) + '\n';
    }
    const value handle = client().request("guest-file-open", {{"path", path}, {"mode", "w+"}});
    for (std::size_t at = 0; at < bytes.size(); at += pieceSize) {
        const std::string piece = bytes.substr(at, pieceSize);
        const value written = client().request(
            "guest-file-write", {{"handle", handle}, {"buf-b64", encodeBase64(piece)}});
        EXPECT_EQ(written.at("count"), piece.size());
    }
    client().request("guest-file-flush", {{"handle", handle}});
    EXPECT_EQ(shell().check("sha256sum <" + path + "; rm " + path), sha256(bytes) + "  -");
    client().request("guest-file-seek", {{"handle", handle}, {"offset", 0}, {"whence", "set"}});
    const value read =
        client().request("guest-file-read", {{"handle", handle}, {"count", bytes.size()}});
    EXPECT_TRUE(decodeBase64(read.at("buf-b64").as_string()) == bytes);
    client().request("guest-file-close", {{"handle", handle}});
}

/// Whenever its socket has taken a part of a request, libvirt begins again with the whole. The
/// agent gets more than there is to send, and either no end or one behind several beginnings.
TEST_F(Binding, CannotSendARequestThatItsSocketDoesNotTakeAtOnce) {
    const std::string ping = R"({"execute":"guest-ping"})";
    client().check({"agent", ping, 60});
    const std::string received =
        "sed -n 's/^rchar: //p' /proc/$(systemctl show --value -p MainPID corvane.service)/io";
    const long long before = std::stoll(shell().check(received));
    constexpr int size = 1'000'000;
    const std::string request =
        R"({"execute":"guest-ping","arguments":{"text":")" + std::string(size, 'a') + "\"}}";
    const value outcome = client().call({"agent", request, 8});
    if (outcome.at("code").as_int64() == agentUnresponsive) {
        EXPECT_EQ(outcome.at("message"),
                  "Guest agent is not responding: Guest agent not available for now");
    } else {
        EXPECT_EQ(outcome, refusal(internalError,
                                   "internal error: unable to execute QEMU agent command "
                                   "'guest-ping': invalid JSON"));
    }
    EXPECT_GT(std::stoll(shell().check(received)) - before, size + size / 10);
    // The agent may hold the beginning of a line, which the next request would end.
    restartAgent();
    expectServed();
}

TEST_F(Binding, IsToldThatTheAgentGoesAndComes) {
    const array disconnected = {2, 2};  // the state; the reason, which is the guest's port
    const array connected = {1, 2};
    restartAgent();
    EXPECT_EQ(client().check({"event"}), disconnected);
    EXPECT_EQ(client().check({"event"}), connected);
    expectServed();
}

TEST_F(Binding, IsToldThatTheAgentDoesNotAnswer) {
    const std::string ping = R"({"execute":"guest-ping"})";
    client().check({"agent", ping, 60});
    shell().check("systemctl kill --signal STOP corvane.service");
    EXPECT_EQ(client().call({"agent", ping, 1}),
              refusal(agentUnresponsive,
                      "Guest agent is not responding: Guest agent not available for now"));
    shell().check("systemctl kill --signal CONT corvane.service");
    EXPECT_EQ(client().check({"agent", ping, 60}), (object{{"return", object{}}}));
}

}  // namespace
}  // namespace corvane::vm
