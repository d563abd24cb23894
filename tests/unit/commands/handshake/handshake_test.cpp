#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "tests/fakes/agent_thread.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

std::string syncRequest(const std::string& command, const std::string& id) {
    return R"({"execute":")" + command + R"(","arguments":{"id":)" + id + "}}";
}

std::string genericError(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
}

class Handshake : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(allCommands); }

    struct Answer {
        std::string line;
        std::string standardError;
    };
    Answer ask(const std::string& request) {
        testing::internal::CaptureStderr();
        std::string line = agent_.request(request);
        return {std::move(line), testing::internal::GetCapturedStderr()};
    }

    FakePlatform platform_;
    AgentThread agent_{platform_};
};

TEST_F(Handshake, SyncEchoesTheIdWithoutADelimiter) {
    EXPECT_EQ(ask(syncRequest("guest-sync", "12345")).line, R"({"return":12345})");
}

TEST_F(Handshake, DelimitedSyncPutsTheDelimiterBeforeThisAnswerAlone) {
    EXPECT_EQ(ask(syncRequest("guest-sync-delimited", "12345")).line,
              "\xFF"
              R"({"return":12345})");
    EXPECT_EQ(ask(R"({"execute":"guest-ping"})").line, R"({"return":{}})");
}

TEST_F(Handshake, IdIsReadAsUnsignedSixtyFourBits) {
    const std::vector<std::pair<std::string, std::string>> ids = {
        {"-1", "18446744073709551615"},
        {"2.9", "2"},
        {"2.9e0", "2"},
        {"-2.9", "18446744073709551614"},
        {"-0.5", "0"},
        {"false", "0"},
        {"true", "1"},
        {"0", "0"},
        {"18446744073709551615", "18446744073709551615"},
        {"18446744073709551616", "0"},
        {"18446744073709551621", "5"},
        {"-18446744073709551617", "18446744073709551615"},
        {"9223372036854775808", "9223372036854775808"},
        {"1626784000123", "1626784000123"},
        {"1e30", "5076944270305263616"},
        {"1e400", "0"},
        {"1e-400", "0"},
    };
    for (const auto& [id, read] : ids) {
        EXPECT_EQ(ask(syncRequest("guest-sync", id)).line, R"({"return":)" + read + "}") << id;
        EXPECT_EQ(ask(syncRequest("guest-sync-delimited", id)).line,
                  "\xFF"
                  R"({"return":)" +
                      read + "}")
            << id;
    }
}

TEST_F(Handshake, SyncWithoutArgumentsIsRefusedWithoutALineOnStandardError) {
    for (const char* command : {"guest-sync", "guest-sync-delimited"}) {
        const Answer answer = ask(std::string(R"({"execute":")") + command + "\"}");
        EXPECT_EQ(answer.line, genericError("missing arguments"));
        EXPECT_EQ(answer.standardError, "");
    }
}

TEST_F(Handshake, SyncWithoutAnIdIsRefusedOnBothChannels) {
    const Answer answer = ask(R"({"execute":"guest-sync","arguments":{}})");
    EXPECT_EQ(answer.line, genericError("id is not a number"));
    EXPECT_EQ(answer.standardError, "handleGuestSync: id is not a number\n");
}

TEST_F(Handshake, DelimitedSyncWithoutAnIdNamesItsOwnHandler) {
    const Answer answer = ask(R"({"execute":"guest-sync-delimited","arguments":{}})");
    EXPECT_EQ(answer.line, genericError("id is not a number")) << "and no delimiter";
    EXPECT_EQ(answer.standardError, "handleGuestSyncDelimited: id is not a number\n");
}

TEST_F(Handshake, IdOfAnotherTypeIsRefused) {
    for (const char* id : {"\"7\"", "null", "[7]", "{}"}) {
        const Answer answer = ask(syncRequest("guest-sync", id));
        EXPECT_EQ(answer.line, genericError("id is not a number")) << id;
        EXPECT_EQ(answer.standardError, "handleGuestSync: id is not a number\n");
    }
}

TEST_F(Handshake, RefusedSyncLeavesNoDelimiterBehind) {
    EXPECT_EQ(ask(syncRequest("guest-sync-delimited", "\"7\"")).line,
              genericError("id is not a number"));
    EXPECT_EQ(ask(R"({"execute":"guest-ping"})").line, R"({"return":{}})");
}

TEST_F(Handshake, PingAnswersAnEmptyObjectWhateverItIsGiven) {
    EXPECT_EQ(ask(R"({"execute":"guest-ping"})").line, R"({"return":{}})");
    EXPECT_EQ(ask(R"({"execute":"guest-ping","arguments":{"x":1},"id":4})").line,
              R"({"return":{}})");
}

TEST_F(Handshake, PingWithArgumentsThatAreNoObjectIsRefused) {
    const std::string refusal = genericError("arguments is not a dictionary");
    EXPECT_EQ(ask(R"({"execute":"guest-ping","arguments":null})").line, refusal);
    EXPECT_EQ(ask(R"({"execute":"guest-ping","arguments":5})").line, refusal);
}

/// The answer to "guest-info" that lists `names`.
std::string infoAnswer(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ",") + (R"({"name":")" + name) +
                R"(","enabled":true,"success-response":true})";
    }
    return R"({"return":{"version":"1.3-MirelVirtIO-221.100.2~2982","supported_commands":[)" +
           list + "]}}";
}

const std::vector<std::string> everyCommand = {"guest-exec",
                                               "guest-exec-status",
                                               "guest-info",
                                               "guest-sync",
                                               "guest-sync-delimited",
                                               "guest-ping",
                                               "guest-file-open",
                                               "guest-file-close",
                                               "guest-file-read",
                                               "guest-file-write",
                                               "mirel-guest-file-vsock-read",
                                               "mirel-guest-file-vsock-write",
                                               "guest-file-seek",
                                               "guest-file-flush",
                                               "guest-network-get-interfaces",
                                               "guest-shutdown",
                                               "mirel-guest-set-remote-login",
                                               "guest-set-time",
                                               "guest-get-time",
                                               "mirel-guest-signal-pid"};

std::vector<std::string> everyCommandBut(const std::vector<std::string>& left) {
    std::vector<std::string> names;
    for (const std::string& name : everyCommand) {
        if (std::find(left.begin(), left.end(), name) == left.end()) {
            names.push_back(name);
        }
    }
    return names;
}

TEST_F(Handshake, InfoListsAllTwentyCommandsInOrderWhereEverythingIsThere) {
    platform_.vsockSockets.createError = 0;
    platform_.remoteLogin.available = true;
    EXPECT_EQ(ask(R"({"execute":"guest-info"})").line, infoAnswer(everyCommand));
}

TEST_F(Handshake, InfoListsEighteenCommandsWithoutVsock) {
    platform_.remoteLogin.available = true;
    const auto names =
        everyCommandBut({"mirel-guest-file-vsock-read", "mirel-guest-file-vsock-write"});
    ASSERT_EQ(names.size(), 18U);
    EXPECT_EQ(ask(R"({"execute":"guest-info"})").line, infoAnswer(names));
}

TEST_F(Handshake, InfoListsSeventeenCommandsWithoutVsockAndRemoteLogin) {
    const auto names =
        everyCommandBut({"mirel-guest-file-vsock-read", "mirel-guest-file-vsock-write",
                         "mirel-guest-set-remote-login"});
    ASSERT_EQ(names.size(), 17U);
    EXPECT_EQ(ask(R"({"execute":"guest-info"})").line, infoAnswer(names));
}

TEST_F(Handshake, InfoProbesAfreshOnEachCallAndClosesItsSocket) {
    ask(R"({"execute":"guest-info"})");
    platform_.vsockSockets.createError = 0;
    const std::string with = ask(R"({"execute":"guest-info"})").line;
    EXPECT_NE(with.find("vsock-read"), std::string::npos);
    EXPECT_EQ(platform_.vsockSockets.created, 2);
    char byte = 0;
    EXPECT_EQ(::read(platform_.vsockSockets.hostEnds.at(0).borrow(), &byte, 1), 0);
}

TEST_F(Handshake, InfoIgnoresArguments) {
    EXPECT_EQ(ask(R"({"execute":"guest-info","arguments":{"x":1}})").line,
              ask(R"({"execute":"guest-info"})").line);
}

TEST_F(Handshake, CommandsThatAreNotListedAreStillDispatchedByName) {
    ASSERT_EQ(ask(R"({"execute":"guest-info"})").line.find("vsock-read"), std::string::npos);
    EXPECT_EQ(ask(R"({"execute":"mirel-guest-file-vsock-read"})").line,
              R"({"error":{"class":"GenericError","desc":"missing arguments"}})");
}

}  // namespace
}  // namespace corvane
