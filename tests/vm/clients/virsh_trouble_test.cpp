// What becomes of libvirt's connection when the agent, or an answer, is not as libvirt wants it.
#include <string>

#include <boost/json/parse.hpp>

#include "tests/vm/clients/clients_fixture.h"
#include "tests/vm/support/base64.h"
#include "tests/vm/support/checksum.h"

namespace corvane::vm {
namespace {

const std::string ping = R"({"execute":"guest-ping"})";

class VirshTrouble : public ClientsTest {
 protected:
    void TearDown() override {
        shell().check("rm -f /root/bytes");
        ClientsTest::TearDown();
    }

    void expectRefused(const std::string& json, const std::string& errors) {
        const ClientOutcome outcome = request(json);
        EXPECT_EQ(outcome.result.status, 1);
        EXPECT_EQ(outcome.result.errors, errors);
    }

    /// libvirt has given the connection up, and takes the next one that the agent makes.
    void expectOutOfServiceUntilRestart() {
        expectRefused(ping,
                      "error: Guest agent is not responding: QEMU guest agent is not available due "
                      "to an error\n");
        restartAgent();
        expectServed();
    }

    /// A request for the first bytes of a file of nine million.
    std::string readRequest(int count) {
        shell().check("head -c 9000000 /dev/urandom >/root/bytes");
        const ClientOutcome opened =
            request(R"({"execute":"guest-file-open","arguments":{"path":"/root/bytes"}})");
        const boost::json::value handle = boost::json::parse(opened.result.output).at("return");
        return R"({"execute":"guest-file-read","arguments":{"handle":)" +
               std::to_string(handle.to_number<long long>()) +
               ",\"count\":" + std::to_string(count) + "}}";
    }
};

TEST_F(VirshTrouble, AnAgentThatIsNotThereIsReported) {
    const std::size_t mark = daemon().log().end();
    shell().check("systemctl stop corvane.service");
    daemon().log().await("qemuAgentClose", mark);
    expectRefused(ping,
                  "error: Guest agent is not responding: QEMU guest agent is not connected\n");
    reconnect([this] { shell().check("systemctl start corvane.service"); });
    expectServed();
}

/// It brings itself in step with each agent once, by a plain guest-sync.
TEST_F(VirshTrouble, ARestartedAgentIsSynchronisedOnce) {
    const std::size_t mark = daemon().log().end();
    restartAgent();
    for (int command = 0; command < 3; ++command) {
        expectServed();
    }
    EXPECT_EQ(synchronisations(mark), 1U);
}

TEST_F(VirshTrouble, AnAnswerThatComesTooLateIsPassedOver) {
    expectServed();
    const std::size_t mark = daemon().log().end();
    shell().check("systemctl kill --signal STOP corvane.service");
    const ClientOutcome outcome = virsh(
        {"qemu-agent-command", guest().name(), "--timeout", "1", R"({"execute":"guest-info"})"});
    EXPECT_EQ(outcome.result.status, 1);
    EXPECT_EQ(outcome.result.errors,
              "error: Guest agent is not responding: Guest agent not available for now\n");
    shell().check("systemctl kill --signal CONT corvane.service");
    expectServed();
    EXPECT_EQ(synchronisations(mark), 1U);
}

/// "--async" gives the answer no time at all: it is there already, or given up.
TEST_F(VirshTrouble, ARequestWithoutTimeForItsAnswerIsAnsweredAtOnceOrGivenUp) {
    const ClientOutcome outcome = virsh({"qemu-agent-command", guest().name(), "--async", ping});
    EXPECT_EQ(outcome.sent, std::vector<std::string>{ping});
    if (outcome.result.status == 0) {
        EXPECT_EQ(outcome.result.output, "{\"return\":{}}\n\n");
    } else {
        EXPECT_EQ(outcome.result.errors,
                  "error: Guest agent is not responding: Guest agent not available for now\n");
    }
    expectServed();
}

/// The byte 0xFF before its answer is no JSON to libvirt, which sends guest-sync itself.
TEST_F(VirshTrouble, ADelimitedAnswerEndsTheConnection) {
    const ClientOutcome outcome =
        request(R"({"execute":"guest-sync-delimited","arguments":{"id":5}})");
    EXPECT_EQ(outcome.result.status, 1);
    EXPECT_TRUE(outcome.result.errors.starts_with(
        "error: internal error: cannot parse json \xff{\"return\":5}: lexical error"))
        << outcome.result.errors;
    expectOutOfServiceUntilRestart();
}

TEST_F(VirshTrouble, ARequestThatEndsTheAgentIsReportedAndTheNextOneServed) {
    reconnect([this] {
        expectRefused(R"({"execute":5})",
                      "error: Guest agent is not responding: Guest agent disappeared while "
                      "executing command\n");
    });
    expectServed();
}

/// Between libvirt's daemon and its clients no text may have more than 4 MiB.
TEST_F(VirshTrouble, AnswersOfFourMebibytesReachTheDaemonButNotVirsh) {
    const ClientOutcome whole = request(readRequest(3145000));
    ASSERT_EQ(whole.result.status, 0) << whole.result.errors;
    const boost::json::value answer = boost::json::parse(whole.result.output);
    EXPECT_EQ(shell().check("head -c 3145000 /root/bytes | sha256sum"),
              sha256(decodeBase64(answer.at("return").at("buf-b64").as_string())) + "  -");
    expectRefused(readRequest(3145728), "error: Unable to encode message payload\n");
    expectServed();
}

/// It keeps at most 10 MiB of an answer.
TEST_F(VirshTrouble, AnswersOfTenMebibytesEndTheConnection) {
    expectRefused(readRequest(8000000),
                  "error: No complete agent response found in 10485760 bytes: Numerical result out "
                  "of range\n");
    expectOutOfServiceUntilRestart();
}

}  // namespace
}  // namespace corvane::vm
