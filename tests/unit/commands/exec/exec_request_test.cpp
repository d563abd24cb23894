#include "commands/exec/exec_request.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/base64.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/commands/exec/exec_request_helper.h"

namespace corvane {
namespace {

using Strings = std::vector<std::string>;

class ExecRequestTest : public testing::Test {
 protected:
    FakePlatform platform_;
};

TEST_F(ExecRequestTest, ProgramAloneLeavesAllElseAbsent) {
    const ExecRequest request = requestOf(outcomeOf(R"({"path":"ls"})"));
    EXPECT_EQ(request.path, "ls") << "not looked for here";
    EXPECT_TRUE(request.arguments.empty());
    EXPECT_FALSE(request.environment);
    EXPECT_FALSE(request.inputData);
    EXPECT_FALSE(request.captureOutput);
    EXPECT_FALSE(request.workingDirectory);
    EXPECT_FALSE(request.stdinPath);
    EXPECT_FALSE(request.stdoutPath);
    EXPECT_FALSE(request.stderrPath);
    EXPECT_FALSE(request.vsockTarget);
    EXPECT_FALSE(request.windowSize);
    EXPECT_FALSE(request.terminalSettings);
    EXPECT_FALSE(request.user);
    EXPECT_FALSE(request.group);
    EXPECT_TRUE(platform_.accounts.lookups.empty());
}

TEST_F(ExecRequestTest, PathMayBeEmptyOrNowhere) {
    EXPECT_EQ(requestOf(outcomeOf(R"({"path":""})")).path, "");
    EXPECT_EQ(requestOf(outcomeOf(R"({"path":"/nonexistent"})")).path, "/nonexistent");
}

TEST_F(ExecRequestTest, ArgumentsAndEnvironmentKeepTheirOrderAndBytes) {
    const ExecRequest request =
        requestOf(outcomeWith(R"("arg":["-l","","\u00e9","-l"],"env":["B=2","A","=","B=3=4"])"));
    EXPECT_EQ(request.arguments, (Strings{"-l", "", "\xC3\xA9", "-l"}));
    EXPECT_EQ(request.environment, (Strings{"B=2", "A", "=", "B=3=4"}));
}

TEST_F(ExecRequestTest, EmptyEnvironmentIsNotAnAbsentOne) {
    const ExecRequest request = requestOf(outcomeWith(R"("arg":[],"env":[])"));
    EXPECT_TRUE(request.arguments.empty());
    ASSERT_TRUE(request.environment);
    EXPECT_TRUE(request.environment->empty());
}

TEST_F(ExecRequestTest, LastOfSeveralWithOneNameCounts) {
    EXPECT_EQ(requestOf(outcomeOf(R"({"path":5,"arg":3,"path":"a","arg":["b"]})")).path, "a");
    expectFailure(outcomeOf(R"({"path":"a","arg":["b"],"arg":3})"), "arg is not an array");
}

TEST_F(ExecRequestTest, InputDataIsDecoded) {
    EXPECT_EQ(requestOf(outcomeWith(R"("input-data":"aGVsbG8=")")).inputData, "hello");
    EXPECT_EQ(requestOf(outcomeWith(R"("input-data":"AAD/")")).inputData,
              std::string("\0\0\xFF", 3));
    EXPECT_EQ(requestOf(outcomeWith(R"("input-data":"")")).inputData, "");
}

TEST_F(ExecRequestTest, InputDataThatIsNotStrictBase64IsRefusedInTheAnswerAlone) {
    for (const char* text : {"aGVs bG8=", R"(aGVs\nbG8=)", "aGVsbG8=\\n", "aGVs_G8=", "a",
                             "====", R"(aGVs\u0000)", "\xC3\xA9gVs"}) {
        SCOPED_TRACE(text);
        expectQuietFailure(outcomeWith(R"("input-data":")" + std::string(text) + '"'),
                           "input-data is not valid base64");
    }
}

TEST_F(ExecRequestTest, LargeInputDataIsTakenWhole) {
    const std::string bytes(std::size_t{3} << 20U, '\xA5');
    const JsonObject arguments{{"path", std::string("cat")}, {"input-data", encodeBase64(bytes)}};
    EXPECT_TRUE(requestOf(outcomeOf(&arguments)).inputData == bytes);
}

TEST_F(ExecRequestTest, EveryNumberButZeroCaptures) {
    const auto captures = [](const std::string& number) {
        return requestOf(outcomeWith(R"("capture-output":)" + number)).captureOutput;
    };
    for (const char* number : {"true", "1", "-1", "0.5", "2", "18446744073709551616"}) {
        EXPECT_TRUE(captures(number)) << number;
    }
    for (const char* number : {"false", "0", "-0", "0.0", "0e5"}) {
        EXPECT_FALSE(captures(number)) << number;
    }
}

TEST_F(ExecRequestTest, PathsThatExistAreTakenAsTheyAre) {
    const ExecRequest request = requestOf(
        outcomeWith(R"("mirel-working-directory":"/","mirel-stdin":"/dev/null",)"
                    R"("mirel-stdout":"/dev/../dev/null","mirel-stderr":"/proc/self/cwd")"));
    EXPECT_EQ(request.workingDirectory, "/");
    EXPECT_EQ(request.stdinPath, "/dev/null");
    EXPECT_EQ(request.stdoutPath, "/dev/../dev/null");
    EXPECT_EQ(request.stderrPath, "/proc/self/cwd");
}

TEST_F(ExecRequestTest, WhateverIsThereExists) {
    const std::string directory = platform_.privateDirectory.prepare().take();
    std::ofstream(directory + "/file").put('x');
    std::filesystem::create_symlink("file", directory + "/link");
    ASSERT_EQ(::mkfifo((directory + "/fifo").c_str(), 0600), 0);
    for (const char* name : {"", "/file", "/link", "/fifo"}) {
        const std::string path = directory + name;
        const ExecRequest request = requestOf(outcomeWith(R"("mirel-working-directory":")" + path +
                                                          R"(","mirel-stdin":")" + path + '"'));
        EXPECT_EQ(request.workingDirectory, path);
        EXPECT_EQ(request.stdinPath, path);
    }
}

TEST_F(ExecRequestTest, LinkToNothingDoesNotExist) {
    const std::string link = platform_.privateDirectory.prepare().take() + "/dangling";
    std::filesystem::create_symlink("nothing", link);
    expectFailure(outcomeWith(R"("mirel-working-directory":")" + link + '"'),
                  "mirel-working-directory " + link + " does not exist");
    expectFailure(outcomeWith(R"("mirel-stderr":")" + link + '"'), "mirel-stderr does not exist",
                  "handleGuestExec: mirel-stderr " + link + " does not exist");
}

TEST_F(ExecRequestTest, EmptyPathDoesNotExist) {
    expectFailure(outcomeWith(R"("mirel-working-directory":"")"),
                  "mirel-working-directory  does not exist");
    expectFailure(outcomeWith(R"("mirel-stdin":"")"), "mirel-stdin does not exist",
                  "handleGuestExec: mirel-stdin  does not exist");
}

TEST_F(ExecRequestTest, PathWithANulDoesNotExistWhateverIsBeforeIt) {
    const std::string path("/dev/null\0", 10);
    expectFailure(outcomeWith(R"("mirel-stdin":"/dev/null\u0000")"), "mirel-stdin does not exist",
                  "handleGuestExec: mirel-stdin " + path + " does not exist");
    expectFailure(outcomeWith(R"("mirel-working-directory":"/dev/null\u0000")"),
                  "mirel-working-directory " + path + " does not exist");
}

TEST_F(ExecRequestTest, StreamsMayBeCombinedWithInputDataAndCapture) {
    const ExecRequest request = requestOf(
        outcomeWith(R"("input-data":"aGVsbG8=","capture-output":true,"mirel-stdin":"/dev/null",)"
                    R"("mirel-stdout":"/dev/null","mirel-stderr":"/dev/null")"));
    EXPECT_TRUE(request.captureOutput);
    EXPECT_TRUE(request.inputData);
    EXPECT_TRUE(request.stdinPath && request.stdoutPath && request.stderrPath);
}

TEST_F(ExecRequestTest, VsockTargetIsReadWhereNothingElseIsAStream) {
    const ExecRequest request =
        requestOf(outcomeWith(R"("mirel-vsock-stdio":"vsock://2:5000","capture-output":false)"));
    ASSERT_TRUE(request.vsockTarget);
    EXPECT_EQ(request.vsockTarget->contextId, 2);
    EXPECT_EQ(request.vsockTarget->port, 5000);
}

TEST_F(ExecRequestTest, VsockTargetIsExclusiveWithEmptyInputDataToo) {
    expectQuietFailure(outcomeWith(R"("mirel-vsock-stdio":"vsock://2:5000","input-data":"")"),
                       "mirel-vsock-stdio is mutually exclusive with other stdio flags");
}

TEST_F(ExecRequestTest, WindowSizeIsGivenWheneverItsKeyIs) {
    const ExecRequest request = requestOf(outcomeWith(R"("mirel-window-size":{})"));
    ASSERT_TRUE(request.windowSize);
    EXPECT_EQ(request.windowSize->ws_row, 0);
    EXPECT_EQ(request.windowSize->ws_col, 0);
    const auto rows = requestOf(outcomeWith(R"("mirel-window-size":{"rows":24})")).windowSize;
    ASSERT_TRUE(rows);
    EXPECT_EQ(rows->ws_row, 24);
    EXPECT_EQ(rows->ws_col, 0);
    EXPECT_EQ(rows->ws_xpixel, 0);
    EXPECT_EQ(rows->ws_ypixel, 0);
}

TEST_F(ExecRequestTest, TerminalSettingsAreGivenWheneverTheirKeyIs) {
    const ExecRequest request = requestOf(outcomeWith(R"("mirel-termios":{"iflag":7})"));
    ASSERT_TRUE(request.terminalSettings);
    EXPECT_EQ(request.terminalSettings->c_iflag, 7U);
    EXPECT_TRUE(requestOf(outcomeWith(R"("mirel-termios":{})")).terminalSettings);
}

TEST_F(ExecRequestTest, UserAndGroupAreFoundByIdOrByName) {
    platform_.accounts.users["alice"] = 1000;
    platform_.accounts.groups["staff"] = 50;
    const ExecRequest byId = requestOf(outcomeWith(R"("mirel-uid":1000.9,"mirel-gid":50)"));
    EXPECT_EQ(byId.user, 1000U);
    EXPECT_EQ(byId.group, 50U);
    const ExecRequest byName =
        requestOf(outcomeWith(R"("mirel-user":"alice","mirel-group":"staff")"));
    EXPECT_EQ(byName.user, 1000U);
    EXPECT_EQ(byName.group, 50U);
    const ExecRequest mixed = requestOf(outcomeWith(R"("mirel-user":"alice","mirel-gid":false)"));
    EXPECT_EQ(mixed.user, 1000U);
    EXPECT_EQ(mixed.group, 0U);
    EXPECT_EQ(platform_.accounts.lookups, (Strings{"user 1000", "group 50", "user alice",
                                                   "group staff", "user alice", "group 0"}));
}

TEST_F(ExecRequestTest, IdsWrapToThirtyTwoBitsAndAreShownSigned) {
    expectQuietFailure(outcomeWith(R"("mirel-uid":4294967294)"), "user -2 does not exist");
    expectQuietFailure(outcomeWith(R"("mirel-gid":-1)"), "group -1 does not exist");
    EXPECT_EQ(requestOf(outcomeWith(R"("mirel-uid":4294967296)")).user, 0U);
    platform_.accounts.users["nobody"] = 4294967294U;
    EXPECT_EQ(requestOf(outcomeWith(R"("mirel-uid":-2)")).user, 4294967294U);
    EXPECT_EQ(platform_.accounts.lookups,
              (Strings{"user 4294967294", "group 4294967295", "user 0", "user 4294967294"}));
}

TEST_F(ExecRequestTest, LookupThatFailsSaysWhyInTheAnswerAlone) {
    platform_.accounts.error = EIO;
    const std::vector<std::pair<std::string, std::string>> accounts = {
        {R"("mirel-uid":4294967294)", "user -2"},
        {R"("mirel-user":"a \"b\"")", "user a \"b\""},
        {R"("mirel-gid":5)", "group 5"},
        {R"("mirel-group":"")", "group "},
    };
    for (const auto& [member, account] : accounts) {
        expectQuietFailure(outcomeWith(member),
                           "failed to find " + account + ": Input/output error");
    }
}

TEST_F(ExecRequestTest, GroupIsNotLookedUpWhenTheUserFails) {
    expectQuietFailure(outcomeWith(R"("mirel-user":"nosuchuser","mirel-group":"root")"),
                       "user nosuchuser does not exist");
    EXPECT_EQ(platform_.accounts.lookups, Strings{"user nosuchuser"});
}

}  // namespace
}  // namespace corvane
