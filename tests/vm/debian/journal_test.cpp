#include <sstream>
#include <string>
#include <vector>

#include "tests/vm/debian/debian_fixture.h"
#include "tests/vm/support/base64.h"
#include "tests/vm/support/file_client.h"

namespace corvane::vm {
namespace {

class Journal : public DebianTest {
 protected:
    using Entry = boost::json::object;

    /// The agent's entries since the agent was started last.
    std::vector<Entry> agentsEntries() {
        std::istringstream lines(
            shell().check("journalctl --sync; journalctl -q -o json -t "
                          "corvane _PID=" +
                          agentPid()));
        std::vector<Entry> entries;
        for (std::string line; std::getline(lines, line);) {
            entries.push_back(parse(line).as_object());
        }
        return entries;
    }

    /// How many lines of the whole journal, of all fields of all programs, hold this text.
    int linesWith(const std::string& text) {
        return std::stoi(
            shell().check("journalctl --sync; journalctl -q -o export | grep -a -c -F "
                          "-e '" +
                          text + "' || true"));
    }
};

std::string textOf(const boost::json::object& entry, const char* field) {
    const auto* value = entry.if_contains(field);
    return value == nullptr ? "" : std::string(value->as_string());
}

TEST_F(Journal, HasBothCategoriesWithTheirLevels) {
    HostClient host = synchronisedHost();
    answerTo(host, "guest-ping");
    unsigned statusEntries = 0;
    unsigned transactionEntries = 0;
    for (const Entry& entry : agentsEntries()) {
        if (textOf(entry, "_TRANSPORT") != "journal") {
            continue;  // standard error
        }
        const std::string category = textOf(entry, "CORVANE_CATEGORY");
        const std::string priority = textOf(entry, "PRIORITY");
        EXPECT_EQ(textOf(entry, "_SYSTEMD_UNIT"), "corvane.service");
        if (category == "status") {
            EXPECT_EQ(priority, "3");
            ++statusEntries;
        } else {
            EXPECT_EQ(category, "transactions");
            EXPECT_EQ(priority, "6");
            ++transactionEntries;
        }
    }
    EXPECT_GT(statusEntries, 0U);       // the version, at the start
    EXPECT_GE(transactionEntries, 2U);  // the request, and the response
}

TEST_F(Journal, HasTheLinesOfStandardErrorUnderTheAgentsName) {
    HostClient host = synchronisedHost();
    host.request(R"({"execute":"guest-sync","arguments":{"id":"x"}})");
    shell().check("journalctl --sync");
    EXPECT_EQ(shell().check("journalctl -q -o cat -t corvane _TRANSPORT=stdout _PID=" + agentPid() +
                            " | grep -c '^handleGuestSync: id is not a number$'"),
              "1");
}

TEST_F(Journal, TellsNothingOfWhatTheHostAsksForAndGets) {
    HostClient host = synchronisedHost();
    ExecClient exec(host);
    FileClient files(host);
    const std::string argument = "marker-of-an-argument";
    const std::string path = "/tmp/marker-of-a-path";
    const std::string output = "marker-of-an-output";
    const std::string bytes = "marker-of-bytes-written-to-a-file";
    exec.run({{"path", "/bin/true"}, {"arg", {argument}}, {"env", {"V=marker-of-a-variable"}}});
    exec.refusalOf("guest-exec", {{"path", "/nowhere/marker-of-a-path"}});
    files.refusalOf("guest-file-open", {{"path", "/nowhere/marker-of-a-path"}});
    files.store(path, bytes, bytes.size());
    EXPECT_EQ(files.fetch(path, bytes.size()), bytes);
    // The text of the output is in the response alone: the shell puts it together.
    EXPECT_EQ(exec.outputOf("printf %s-%s marker of-an-output"), output);
    // An unknown command is named, so that this search would find the others.
    host.request(R"({"execute":"marker-of-a-command"})");
    EXPECT_GE(linesWith("marker-of-a-command"), 1);
    for (const std::string& hidden : {argument, path, output, bytes, std::string("of-a-variable"),
                                      std::string("marker-of-a-path")}) {
        EXPECT_EQ(linesWith(hidden), 0) << hidden;
    }
    for (const std::string& hidden : {encodeBase64(output), encodeBase64(bytes)}) {
        EXPECT_EQ(linesWith(hidden), 0) << hidden;
    }
    shell().check("rm " + path);
}

}  // namespace
}  // namespace corvane::vm
