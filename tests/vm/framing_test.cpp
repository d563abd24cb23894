#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

class FramingOnPort : public SharedGuestTest {
 protected:
    /// True when the next line that comes answers a sync sent now: nothing else was answered.
    static bool nothingElseIsAnswered(HostClient& host) {
        return host.request(R"({"execute":"guest-sync","arguments":{"id":77}})") ==
               R"({"return":77})";
    }
};

TEST_F(FramingOnPort, TwoRequestsInOneWriteGetTwoAnswersInOrder) {
    HostClient host = synchronisedHost();
    host.send(
        "{\"execute\":\"guest-sync\",\"arguments\":{\"id\":1}}\n"
        "{\"execute\":\"guest-sync\",\"arguments\":{\"id\":2}}\n");
    EXPECT_EQ(host.receiveLine(), R"({"return":1})");
    EXPECT_EQ(host.receiveLine(), R"({"return":2})");
}

TEST_F(FramingOnPort, ASplitRequestIsAnsweredOnceWithItsLineFeed) {
    HostClient host = synchronisedHost();
    for (const char* piece :
         {"{\"execute\":\"gue", "st-sync\",\"argum", "ents\":{\"id\":5}}", "\n"}) {
        host.send(piece);
        // A round trip through the guest's shell lets the piece arrive on its own.
        shell().check("true");
    }
    EXPECT_EQ(host.receiveLine(), R"({"return":5})");
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, InputWithoutALineFeedIsNotAnswered) {
    HostClient host = synchronisedHost();
    host.send(R"({"execute":"guest-ping"})");
    shell().check("true");
    // The marker drops it unanswered.
    host.send("\xFF");
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, AnEmptyLineIsNotAnswered) {
    HostClient host = synchronisedHost();
    host.send("\n\n\n");
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, GarbageBeforeTheMarkerIsDropped) {
    HostClient host = synchronisedHost();
    host.send("garbage\xFF{\"execute\":\"guest-ping\"}\n");
    EXPECT_EQ(host.receiveLine(), R"({"return":{}})");
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, TheMarkerAloneAfterPartialInputBringsBackStep) {
    HostClient host = synchronisedHost();
    host.send("{\"execute\":\"guest-");
    host.send("\xFF\xFF\xFF");
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, ATopLevelStringIsInvalidJson) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(parse(host.request(R"("text")")), errorResponse("GenericError", "invalid JSON"));
}

TEST_F(FramingOnPort, ATopLevelArrayIsNotADictionary) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(parse(host.request("[1,2]")),
              errorResponse("GenericError", "request is not a dictionary"));
}

TEST_F(FramingOnPort, EveryLineOfPrettyPrintedJsonIsInvalidJson) {
    HostClient host = synchronisedHost();
    host.send("{\n  \"execute\":\n  \"guest-ping\"\n}\n");
    for (int line = 0; line < 4; ++line) {
        EXPECT_EQ(parse(host.receiveLine()), errorResponse("GenericError", "invalid JSON"));
    }
    EXPECT_TRUE(nothingElseIsAnswered(host));
}

TEST_F(FramingOnPort, ACarriageReturnBeforeTheLineFeedIsWhiteSpace) {
    HostClient host = synchronisedHost();
    host.send("{\"execute\":\"guest-ping\"}\r\n");
    EXPECT_EQ(host.receiveLine(), R"({"return":{}})");
}

TEST_F(FramingOnPort, TheEndOfTheChannelIsLoggedAndTheNextHostIsAnswered) {
    HostClient host = synchronisedHost();
    host.disconnect();
    awaitLog("The connection has ended.");
    HostClient next = machine().connectHost();
    EXPECT_EQ(next.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

}  // namespace
}  // namespace corvane::vm
