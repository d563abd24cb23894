// The order of the checks of "guest-exec": every check, and every two of them at once.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/fake_platform.h"
#include "tests/unit/commands/exec/exec_request_helper.h"

namespace corvane {
namespace {

/// One check: arguments that fail it and no other, and what that gives.
struct Row {
    std::string arguments;
    std::string description;
    std::string line;                  ///< on standard error, without its end; empty for none
    std::vector<std::string> lookups;  ///< in the database of users and groups
    /// Two rows of one pair of keys cannot fail together: both keys at once is a failure of its
    /// own. Rows of one rank are one check, in several forms.
    std::string pair;
    std::string rank;
};

Row loud(const std::string& arguments, const std::string& description) {
    return {arguments, description, "handleGuestExec: " + description, {}, {}, {}};
}

Row quiet(const std::string& arguments, const std::string& description) {
    return {arguments, description, "", {}, {}, {}};
}

Row stream(const std::string& key) {
    return {"{\"" + key + R"(":"/nonexistent"})",
            key + " does not exist",
            "handleGuestExec: " + key + " /nonexistent does not exist",
            {},
            {},
            {}};
}

Row exclusive(const std::string& otherStream) {
    Row row = quiet(R"({"mirel-vsock-stdio":"vsock://2:5000",)" + otherStream + "}",
                    "mirel-vsock-stdio is mutually exclusive with other stdio flags");
    row.rank = "exclusivity";
    return row;
}

Row windowSize(const std::string& value, const std::string& description) {
    Row row = loud(R"({"mirel-window-size":)" + value + "}", description);
    row.line = "getWindowSize: " + description;
    return row;
}

Row termios(const std::string& members, const std::string& description) {
    return loud(R"({"mirel-termios":{)" + members + "}}", description);
}

Row account(const std::string& pair, Row row, std::vector<std::string> lookups) {
    row.pair = pair;
    row.lookups = std::move(lookups);
    return row;
}

std::string twentyWith(const std::string& element, std::size_t at) {
    std::string list;
    for (std::size_t index = 0; index < 20; ++index) {
        list += (index == 0 ? "" : ",") + (index == at ? element : std::string("1"));
    }
    return "[" + list + "]";
}

/// All checks behind the one for missing arguments, in their order.
std::vector<Row> allRows() {
    return {
        loud(R"({"path":5})", "path is not a string"),
        loud(R"({"arg":"-l"})", "arg is not an array"),
        loud(R"({"arg":["-l",3]})", "arg parameter is not a string"),
        loud(R"({"env":{}})", "env is not an array"),
        loud(R"({"env":["A=1",null]})", "env parameter is not a string"),
        loud(R"({"input-data":7})", "input-data is not a string"),
        quiet(R"({"input-data":"aGVs bG8="})", "input-data is not valid base64"),
        loud(R"({"capture-output":"yes"})", "capture-output is not a number"),
        loud(R"({"mirel-working-directory":[]})", "mirel-working-directory is not a string"),
        loud(R"({"mirel-working-directory":"/nonexistent"})",
             "mirel-working-directory /nonexistent does not exist"),
        loud(R"({"mirel-stdin":5})", "mirel-stdin is not a string"),
        stream("mirel-stdin"),
        loud(R"({"mirel-stdout":5})", "mirel-stdout is not a string"),
        stream("mirel-stdout"),
        loud(R"({"mirel-stderr":5})", "mirel-stderr is not a string"),
        stream("mirel-stderr"),
        quiet(R"({"mirel-vsock-stdio":5})", "mirel-vsock-stdio is not a string"),
        exclusive(R"("mirel-stdin":"/dev/null")"),
        exclusive(R"("mirel-stdout":"/dev/null")"),
        exclusive(R"("mirel-stderr":"/dev/null")"),
        exclusive(R"("input-data":"aGVsbG8=")"),
        exclusive(R"("capture-output":true)"),
        quiet(R"({"mirel-vsock-stdio":"tcp://2:5000"})",
              "mirel-vsock-stdio is invalid (expecting vsock://cid:port)"),
        windowSize("[]", "mirel-window-size is not a dictionary"),
        windowSize(R"({"x":"1"})", "x is not a number"),
        windowSize(R"({"y":"1"})", "y is not a number"),
        windowSize(R"({"rows":"1"})", "rows is not a number"),
        windowSize(R"({"columns":"1"})", "columns is not a number"),
        loud(R"({"mirel-termios":5})", "mirel-termios is not a dictionary"),
        termios(R"("iflag":"1")", "iflag is not a number"),
        termios(R"("oflag":"1")", "oflag is not a number"),
        termios(R"("cflag":"1")", "cflag is not a number"),
        termios(R"("lflag":"1")", "lflag is not a number"),
        termios(R"("ispeed":"1")", "ispeed is not a number"),
        termios(R"("ospeed":"1")", "ospeed is not a number"),
        termios(R"("cc":"1")", "cc is not an array"),
        termios(R"("cc":[0,1,2])", "cc must be length 20"),
        termios(R"("cc":)" + twentyWith("\"x\"", 5), "cc value 'x' at index 5 is not a number"),
        account("user",
                quiet(R"({"mirel-uid":0,"mirel-user":"root"})",
                      "mirel-user and mirel-uid cannot both be specified"),
                {}),
        account("user", loud(R"({"mirel-uid":"0"})", "mirel-uid is not a number"), {}),
        account("user", quiet(R"({"mirel-uid":77})", "user 77 does not exist"), {"user 77"}),
        account("user", loud(R"({"mirel-user":0})", "mirel-user is not a string"), {}),
        account("user", quiet(R"({"mirel-user":"nosuchuser"})", "user nosuchuser does not exist"),
                {"user nosuchuser"}),
        account("group",
                quiet(R"({"mirel-gid":0,"mirel-group":"root"})",
                      "mirel-group and mirel-gid cannot both be specified"),
                {}),
        account("group", loud(R"({"mirel-gid":"0"})", "mirel-gid is not a number"), {}),
        account("group", quiet(R"({"mirel-gid":77})", "group 77 does not exist"), {"group 77"}),
        account("group", loud(R"({"mirel-group":0})", "mirel-group is not a string"), {}),
        account("group",
                quiet(R"({"mirel-group":"nosuchgroup"})", "group nosuchgroup does not exist"),
                {"group nosuchgroup"}),
    };
}

/// The members of both, of objects in both again those of both; nothing when one key would need
/// two values.
std::optional<JsonObject> bothOf(const JsonObject& one, const JsonObject& two) {
    JsonObject both;
    for (const auto& [key, value] : one.members()) {
        const JsonValue* other = two.find(key);
        if (other == nullptr) {
            both.add(key, value);
            continue;
        }
        if (value.object() == nullptr || other->object() == nullptr) {
            return std::nullopt;
        }
        auto inner = bothOf(*value.object(), *other->object());
        if (!inner) {
            return std::nullopt;
        }
        both.add(key, std::move(*inner));
    }
    for (const auto& [key, value] : two.members()) {
        if (one.find(key) == nullptr) {
            both.add(key, value);
        }
    }
    return both;
}

void expectRow(const Row& row, JsonObject arguments) {
    if (arguments.find("path") == nullptr) {
        arguments.add("path", std::string("/bin/true"));
    }
    SCOPED_TRACE(writeJson(arguments));
    const FakePlatform platform;
    expectFailure(outcomeOf(&arguments), row.description, row.line);
    EXPECT_EQ(platform.accounts.lookups, row.lookups);
}

TEST(ExecRequestOrder, EachCheckAnswersWithItsTexts) {
    for (const Row& row : allRows()) {
        expectRow(row, objectOf(valueOf(row.arguments)));
    }
}

TEST(ExecRequestOrder, OfTwoFailuresTheEarlierIsAnsweredWhicheverComesFirstInTheRequest) {
    const std::vector<Row> rows = allRows();
    std::size_t together = 0;
    std::size_t apart = 0;
    for (auto earlier = rows.begin(); earlier != rows.end(); ++earlier) {
        const JsonValue one = valueOf(earlier->arguments);
        for (auto later = earlier + 1; later != rows.end(); ++later) {
            const JsonValue two = valueOf(later->arguments);
            const bool alternatives = (!earlier->pair.empty() && earlier->pair == later->pair) ||
                                      (!earlier->rank.empty() && earlier->rank == later->rank);
            const auto both = bothOf(objectOf(one), objectOf(two));
            if (alternatives || !both) {
                ++apart;
                continue;
            }
            expectRow(*earlier, *both);
            expectRow(*earlier, *bothOf(objectOf(two), objectOf(one)));
            ++together;
        }
    }
    // So that the list cannot quietly lose what it is for.
    EXPECT_EQ(rows.size(), 48U);
    EXPECT_EQ(together, 1055U);
    EXPECT_EQ(apart, 73U) << "pairs that need two values of one key, or are one check";
}

TEST(ExecRequestOrder, ChecksOfOneKeyAreInOrder) {
    const FakePlatform platform;
    expectFailure(outcomeWith(R"("arg":["a",1],"env":[1])"), "arg parameter is not a string");
    expectQuietFailure(outcomeWith(R"("mirel-vsock-stdio":5,"capture-output":true)"),
                       "mirel-vsock-stdio is not a string");
    expectQuietFailure(outcomeWith(R"("mirel-vsock-stdio":"no URL","capture-output":true)"),
                       "mirel-vsock-stdio is mutually exclusive with other stdio flags");
    expectFailure(outcomeWith(R"("mirel-termios":{"cc":["x"]})"), "cc must be length 20");
    expectFailure(outcomeWith(R"("mirel-termios":{"cc":[1,2,3],"ospeed":[]})"),
                  "ospeed is not a number");
    expectQuietFailure(outcomeWith(R"("mirel-uid":"x","mirel-user":5)"),
                       "mirel-user and mirel-uid cannot both be specified");
    expectQuietFailure(outcomeWith(R"("mirel-gid":null,"mirel-group":null)"),
                       "mirel-group and mirel-gid cannot both be specified");
    EXPECT_TRUE(platform.accounts.lookups.empty());
}

TEST(ExecRequestOrder, MissingArgumentsComeBeforeEverything) {
    const FakePlatform platform;
    expectQuietFailure(outcomeOf(nullptr), "missing arguments");
    expectFailure(outcomeOf("{}"), "path is not a string");
}

TEST(ExecRequestOrder, NullIsPresentAndOfNoType) {
    const FakePlatform platform;
    const std::vector<std::pair<std::string, std::string>> complaints = {
        {"arg", "is not an array"},
        {"env", "is not an array"},
        {"input-data", "is not a string"},
        {"capture-output", "is not a number"},
        {"mirel-working-directory", "is not a string"},
        {"mirel-stdin", "is not a string"},
        {"mirel-stdout", "is not a string"},
        {"mirel-stderr", "is not a string"},
        {"mirel-termios", "is not a dictionary"},
        {"mirel-uid", "is not a number"},
        {"mirel-user", "is not a string"},
        {"mirel-gid", "is not a number"},
        {"mirel-group", "is not a string"},
    };
    for (const auto& [key, complaint] : complaints) {
        expectFailure(outcomeWith('"' + key + "\":null"), key + " " + complaint);
    }
    expectFailure(outcomeOf(R"({"path":null})"), "path is not a string");
    expectQuietFailure(outcomeWith(R"("mirel-vsock-stdio":null)"),
                       "mirel-vsock-stdio is not a string");
    expectFailure(outcomeWith(R"("mirel-window-size":null)"),
                  "mirel-window-size is not a dictionary",
                  "getWindowSize: mirel-window-size is not a dictionary");
}

}  // namespace
}  // namespace corvane
