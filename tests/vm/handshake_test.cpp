#include <string>
#include <vector>

#include <boost/json/value_to.hpp>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

class HandshakeOnPort : public SharedGuestTest {};

TEST_F(HandshakeOnPort, SyncEchoesTheIdWithoutAMarker) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(host.request(R"({"execute":"guest-sync","arguments":{"id":12345}})"),
              R"({"return":12345})");
}

TEST_F(HandshakeOnPort, DelimitedSyncPutsTheMarkerBeforeItsAnswerAndNotBeforeTheNext) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(host.request(R"({"execute":"guest-sync-delimited","arguments":{"id":12345}})"),
              "\xFF{\"return\":12345}");
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(HandshakeOnPort, IdsWrapAndTruncateLikeUnsignedNumbers) {
    HostClient host = synchronisedHost();
    const auto answerTo = [&host](const std::string& id) {
        return host.request("{\"execute\":\"guest-sync\",\"arguments\":{\"id\":" + id + "}}");
    };
    EXPECT_EQ(answerTo("-1"), R"({"return":18446744073709551615})");
    EXPECT_EQ(answerTo("2.9"), R"({"return":2})");
    EXPECT_EQ(answerTo("false"), R"({"return":0})");
    EXPECT_EQ(answerTo("true"), R"({"return":1})");
}

TEST_F(HandshakeOnPort, AnIdThatIsNoNumberIsRefusedAndNamedOnStandardError) {
    HostClient host = synchronisedHost();
    shell().check(": > /run/log/agent.output");
    EXPECT_EQ(parse(host.request(R"({"execute":"guest-sync","arguments":{"id":"7"}})")),
              errorResponse("GenericError", "id is not a number"));
    EXPECT_EQ(shell().check("cat /run/log/agent.output"), "handleGuestSync: id is not a number");
}

TEST_F(HandshakeOnPort, MissingArgumentsAreRefusedWithoutALineOnStandardError) {
    HostClient host = synchronisedHost();
    shell().check(": > /run/log/agent.output");
    EXPECT_EQ(parse(host.request(R"({"execute":"guest-sync"})")),
              errorResponse("GenericError", "missing arguments"));
    EXPECT_EQ(shell().check("cat /run/log/agent.output"), "");
}

TEST_F(HandshakeOnPort, PingAnswersAnEmptyObject) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(HandshakeOnPort, InfoListsSeventeenCommandsWithoutVsockAndRemoteLogin) {
    HostClient host = synchronisedHost();
    const boost::json::value answer = parse(host.request(R"({"execute":"guest-info"})"));
    const boost::json::value& info = answer.at("return");
    EXPECT_EQ(info.at("version"), "1.3-MirelVirtIO-221.100.2~2982");
    std::vector<std::string> names;
    for (const boost::json::value& command : info.at("supported_commands").as_array()) {
        names.push_back(boost::json::value_to<std::string>(command.at("name")));
        EXPECT_EQ(command.at("enabled"), true);
        EXPECT_EQ(command.at("success-response"), true);
        EXPECT_EQ(command.as_object().size(), 3U);
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{
                  "guest-exec", "guest-exec-status", "guest-info", "guest-sync",
                  "guest-sync-delimited", "guest-ping", "guest-file-open", "guest-file-close",
                  "guest-file-read", "guest-file-write", "guest-file-seek", "guest-file-flush",
                  "guest-network-get-interfaces", "guest-shutdown", "guest-set-time",
                  "guest-get-time", "mirel-guest-signal-pid"}));
}

TEST_F(HandshakeOnPort, AnUnknownCommandIsNamedInTheAnswerAndInTheLog) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(parse(host.request(R"({"execute":"Guest-Ping"})")),
              errorResponse("CommandNotFound", "Invalid command 'Guest-Ping'"));
    awaitLog("Unknown command: Guest-Ping");
}

}  // namespace
}  // namespace corvane::vm
