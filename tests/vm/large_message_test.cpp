#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

/// An unknown command's name comes back in the answer: a response as large as one likes.
class LargeMessages : public SharedGuestTest {
 protected:
    static std::string requestNaming(const std::string& name) {
        return "{\"execute\":\"" + name + "\"}\n";
    }
};

TEST_F(LargeMessages, ARequestOfTenMegabytesIsAnswered) {
    HostClient host = synchronisedHost();
    const std::string padding(10'000'000, 'x');
    host.send("{\"execute\":\"guest-sync\",\"arguments\":{\"padding\":\"" + padding +
              "\",\"id\":10}}\n");
    EXPECT_EQ(host.receiveLine(), R"({"return":10})");
}

TEST_F(LargeMessages, ResponsesAroundThePortsLargestWriteArriveWhole) {
    HostClient host = synchronisedHost();
    for (const std::size_t size : {32'000U, 32'768U, 33'000U, 65'536U, 200'000U, 1'000'000U}) {
        const std::string name(size, 'n');
        host.send(requestNaming(name));
        EXPECT_TRUE(parse(host.receiveLine()) ==
                    errorResponse("CommandNotFound", "Invalid command '" + name + "'"))
            << size;
    }
}

TEST_F(LargeMessages, AResponseThatFillsThePortArrivesWholeAtAHostThatReadsLate) {
    HostClient host = synchronisedHost();
    const std::string name(8'000'000, 'n');
    host.send(requestNaming(name));
    // The answer's log line says that it is about to be written. Then the host reads slowly: a
    // piece, a round trip through the guest's shell, the next piece.
    awaitLog("Unknown command: nnnn");
    std::string line;
    for (int piece = 0; piece < 40; ++piece) {
        line += host.receive(4096);
        shell().check("true");
    }
    line += host.receiveLine();
    EXPECT_TRUE(parse(line) == errorResponse("CommandNotFound", "Invalid command '" + name + "'"));
    EXPECT_EQ(host.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(LargeMessages, AHostThatLeavesInTheMiddleOfItsResponseDoesNotHoldTheAgent) {
    HostClient host = synchronisedHost();
    host.send(requestNaming(std::string(8'000'000, 'n')));
    host.receive(100'000);  // the answer is on its way
    host.disconnect();
    awaitLog("The connection has ended.");
    HostClient next = synchronisedHost();
    EXPECT_EQ(next.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

TEST_F(LargeMessages, AHostThatLeavesWithoutReadingItsResponseDoesNotHoldTheAgent) {
    HostClient host = synchronisedHost();
    host.send(requestNaming(std::string(8'000'000, 'm')));
    awaitLog("Unknown command: mmmm");
    host.disconnect();
    HostClient next = synchronisedHost();
    EXPECT_EQ(next.request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

}  // namespace
}  // namespace corvane::vm
