#include "commands/all_commands.h"

#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

TEST(AllCommands, StandInTheOrderOfComparison) {
    std::vector<std::string_view> names;
    for (const Command& command : allCommands) {
        names.push_back(command.name);
    }
    EXPECT_EQ(names, (std::vector<std::string_view>{"guest-sync",
                                                    "guest-sync-delimited",
                                                    "guest-info",
                                                    "guest-ping",
                                                    "guest-exec",
                                                    "guest-exec-status",
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
                                                    "guest-set-time",
                                                    "guest-get-time",
                                                    "mirel-guest-set-remote-login",
                                                    "mirel-guest-signal-pid"}));
}

TEST(AllCommands, HaveEachAPlaceOfItsOwnInTheReport) {
    std::set<int> positions;
    for (const Command& command : allCommands) {
        positions.insert(command.reportPosition);
    }
    EXPECT_EQ(positions.size(), 20U);
    EXPECT_EQ(*positions.begin(), 1);
    EXPECT_EQ(*positions.rbegin(), 20);
}

TEST(AllCommands, ThoseOfThreeNamesTakeNoArguments) {
    for (const Command& command : allCommands) {
        const bool takesNothing = command.name == "guest-info" || command.name == "guest-ping" ||
                                  command.name == "guest-get-time";
        if (takesNothing) {
            EXPECT_FALSE(std::holds_alternative<ArgumentsHandler>(command.handler));
        } else {
            EXPECT_FALSE(std::holds_alternative<PlainHandler>(command.handler));
        }
    }
}

/// What the handler of a command answers to arguments, as JSON.
std::string answerOf(std::string_view name, const std::string& arguments) {
    for (const Command& command : allCommands) {
        if (command.name == name) {
            const JsonValue value = valueOf(arguments);
            const auto* plain = std::get_if<PlainHandler>(&command.handler);
            return writeJson(plain != nullptr
                                 ? (*plain)()
                                 : std::get<ArgumentsHandler>(command.handler)(value.object()));
        }
    }
    return "no such command";
}

/// What a command answers when it gets an empty object.
std::string answerToNothing(std::string_view name) {
    for (const Command& command : allCommands) {
        if (const auto* handler = std::get_if<ArgumentsHandler>(&command.handler);
            handler != nullptr && command.name == name) {
            const JsonObject none;
            testing::internal::CaptureStderr();
            const JsonValue response = (*handler)(&none);
            testing::internal::GetCapturedStderr();
            return *response.object()->find("error")->object()->find("desc")->string();
        }
    }
    return "no handler";
}

TEST(AllCommands, NamesLeadToTheirHandlers) {
    EXPECT_EQ(answerToNothing("guest-sync"), "id is not a number");
    EXPECT_EQ(answerToNothing("guest-sync-delimited"), "id is not a number");
    EXPECT_EQ(answerToNothing("guest-exec"), "path is not a string");
    EXPECT_EQ(answerToNothing("guest-exec-status"), "pid is not a number");
    EXPECT_EQ(answerToNothing("guest-file-open"), "path is not a string");
    for (const char* name :
         {"guest-file-close", "guest-file-read", "guest-file-write", "mirel-guest-file-vsock-read",
          "mirel-guest-file-vsock-write", "guest-file-seek", "guest-file-flush"}) {
        EXPECT_EQ(answerToNothing(name), "handle is not a number") << name;
    }
    EXPECT_EQ(answerToNothing("guest-set-time"), "time is not a number");
    EXPECT_EQ(answerToNothing("mirel-guest-signal-pid"), "signal is not a number");
}

TEST(AllCommands, NamesLeadToWhatIsAskedOfTheGuest) {
    FakePlatform platform;
    platform.networkInterfaces.error = ENOBUFS;
    EXPECT_EQ(answerOf("guest-network-get-interfaces", "{}"),
              R"({"error":{"class":"GenericError","desc":"getifaddrs error 105"}})");
    EXPECT_EQ(answerOf("guest-shutdown", R"({"mode":"reboot"})"), R"({"return":{}})");
    EXPECT_EQ(platform.powerControl.performed(), std::vector<PowerAction>{PowerAction::restart});
    EXPECT_EQ(answerOf("guest-set-time", R"({"time":5000000007})"), R"({"return":{}})");
    EXPECT_EQ(answerOf("guest-get-time", "{}"), R"({"return":{"time":5000000007}})");
    EXPECT_EQ(answerOf("mirel-guest-set-remote-login", R"({"enabled":1})"), R"({"return":{}})");
    EXPECT_EQ(platform.remoteLogin.switched, std::vector<bool>{true});
}

}  // namespace
}  // namespace corvane
