// Requests as they stand, by "virsh qemu-agent-command".
#include <string>

#include <boost/json/parse.hpp>

#include "tests/vm/clients/clients_fixture.h"
#include "tests/vm/support/base64.h"

namespace corvane::vm {
namespace {

class VirshRequest : public ClientsTest {
 protected:
    /// What the agent returns.
    boost::json::value returned(const std::string& json) {
        const ClientOutcome outcome = request(json);
        EXPECT_EQ(outcome.result.status, 0) << outcome.result.errors;
        EXPECT_EQ(outcome.sent, std::vector<std::string>{json});
        return boost::json::parse(outcome.result.output).at("return");
    }
};

TEST_F(VirshRequest, PingIsAnswered) {
    const std::string ping = R"({"execute":"guest-ping"})";
    const ClientOutcome outcome = request(ping);
    EXPECT_EQ(outcome.result.status, 0) << outcome.result.errors;
    EXPECT_EQ(outcome.result.output, "{\"return\":{}}\n\n");
    EXPECT_EQ(outcome.sent, std::vector<std::string>{ping});
    const ClientOutcome pretty =
        virsh({"qemu-agent-command", guest().name(), "--timeout", "60", "--pretty", ping});
    EXPECT_EQ(pretty.result.output, "{\n  \"return\": {\n\n  }\n}\n\n\n") << pretty.result.errors;
}

TEST_F(VirshRequest, SyncAndInfoAreAnswered) {
    EXPECT_EQ(returned(R"({"execute":"guest-sync","arguments":{"id":1234567890123}})"),
              1234567890123);
    const boost::json::value info = returned(R"({"execute":"guest-info"})");
    EXPECT_GE(info.at("supported_commands").as_array().size(), 17U);
}

TEST_F(VirshRequest, AProgramIsStartedAndItsOutputFetched) {
    const boost::json::value started = returned(
        R"({"execute":"guest-exec","arguments":{"path":"/bin/sh","arg":["-c","cat; exit 3"],)"
        R"("input-data":"aGVsbG8=","capture-output":true}})");
    const std::string pid = std::to_string(started.at("pid").as_int64());
    boost::json::value status;
    do {
        status = returned(R"({"execute":"guest-exec-status","arguments":{"pid":)" + pid + "}}");
    } while (!status.at("exited").as_bool());
    EXPECT_EQ(status.at("exitcode"), 3);
    EXPECT_EQ(decodeBase64(status.at("out-data").as_string()), "hello");
}

TEST_F(VirshRequest, AFileIsWrittenAndRead) {
    const std::string path = R"("arguments":{"path":"/root/by-virsh","mode":"w+"}})";
    const std::string handle =
        std::to_string(returned(R"({"execute":"guest-file-open",)" + path).to_number<long long>());
    const std::string withHandle = R"("arguments":{"handle":)" + handle;
    EXPECT_EQ(
        returned(R"({"execute":"guest-file-write",)" + withHandle + R"(,"buf-b64":"aGVsbG8="}})")
            .at("count"),
        5);
    returned(R"({"execute":"guest-file-seek",)" + withHandle + R"(,"offset":1,"whence":"set"}})");
    EXPECT_EQ(returned(R"({"execute":"guest-file-read",)" + withHandle + R"(,"count":100}})"),
              boost::json::parse(R"({"count":4,"eof":true,"buf-b64":"ZWxsbw=="})"));
    returned(R"({"execute":"guest-file-close",)" + withHandle + "}}");
    EXPECT_EQ(shell().check("cat /root/by-virsh; rm /root/by-virsh"), "hello");
}

TEST_F(VirshRequest, AnErrorOfTheAgentIsShownWithItsWords) {
    const ClientOutcome outcome = request(R"({"execute":"guest-file-open","arguments":{}})");
    EXPECT_EQ(outcome.result.status, 1);
    EXPECT_EQ(outcome.result.errors,
              "error: internal error: unable to execute QEMU agent command 'guest-file-open': "
              "path is not a string\n");
}

/// libvirt reads what it is to send.
TEST_F(VirshRequest, WhatIsNotJsonDoesNotReachTheAgent) {
    const ClientOutcome outcome = request("guest-ping");
    EXPECT_EQ(outcome.result.status, 1);
    EXPECT_TRUE(outcome.result.errors.starts_with(
        "error: internal error: cannot parse json guest-ping: lexical error"))
        << outcome.result.errors;
    EXPECT_TRUE(outcome.sent.empty());
    expectServed();
}

}  // namespace
}  // namespace corvane::vm
