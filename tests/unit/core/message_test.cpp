#include "core/message.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

class Message : public testing::Test {
 protected:
    FakePlatform platform_;
};

TEST_F(Message, ErrorResponseHasExactlyClassAndDescription) {
    const JsonValue response = makeErrorResponse(genericError, "no such thing");
    EXPECT_EQ(writeJson(response), R"({"error":{"class":"GenericError","desc":"no such thing"}})");
}

TEST_F(Message, SuccessResponseHasTheSingleKeyReturn) {
    EXPECT_EQ(writeJson(makeSuccessResponse(JsonObject())), R"({"return":{}})");
}

TEST_F(Message, StatusEntryIsFormattedAndKeepsItsNewline) {
    logStatus(false, "Value %llu too large for %s\n", 5ULL, "uint32");
    EXPECT_EQ(platform_.systemLog.status(),
              std::vector<std::string>{"Value 5 too large for uint32\n"});
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(Message, StatusEntriesDoNotGoToStandardError) {
    testing::internal::CaptureStderr();
    logStatus(false, "hello\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Message, FatalStatusEntryIsWrittenAndEndsTheProcessWithStatusOne) {
    platform_.systemLog.echoToStandardError = true;
    testing::internal::CaptureStderr();
    const int status = exitStatusOf([] { logStatus(true, "that was it: %d\n", 7); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "that was it: 7\n");
    EXPECT_EQ(status, 1);
}

TEST_F(Message, RequestEntryShowsTheCommandInClearAndTheArgumentsMasked) {
    JsonObject arguments;
    arguments.add("password", std::string("hunter2"));
    const JsonValue value = arguments;
    logRequest(std::string("guest-exec"), &value);
    ASSERT_EQ(platform_.systemLog.transactions().size(), 1U);
    const std::string entry = platform_.systemLog.transactions()[0];
    EXPECT_EQ(entry.rfind("Request: 'guest-exec <masked: ", 0), 0U) << entry;
    EXPECT_EQ(entry.find("hunter2"), std::string::npos);
    EXPECT_EQ(entry.find("password"), std::string::npos);
    EXPECT_EQ(entry.back(), '\'');
}

TEST_F(Message, EqualArgumentsHaveEqualMasksAndOthersDiffer) {
    JsonObject one;
    one.add("a", JsonNumber::fromUnsigned(1));
    JsonObject two;
    two.add("a", JsonNumber::fromUnsigned(2));
    const JsonValue first = one;
    const JsonValue again = one;
    const JsonValue other = two;
    logRequest(std::string("c"), &first);
    logRequest(std::string("c"), &again);
    logRequest(std::string("c"), &other);
    logRequest(std::string("c"), nullptr);
    const auto entries = platform_.systemLog.transactions();
    ASSERT_EQ(entries.size(), 4U);
    EXPECT_EQ(entries[0], entries[1]);
    EXPECT_NE(entries[0], entries[2]);
    EXPECT_NE(entries[0], entries[3]);
}

TEST_F(Message, ResponseEntryIsMaskedWhole) {
    logResponse(makeErrorResponse(genericError, "secret text"));
    ASSERT_EQ(platform_.systemLog.transactions().size(), 1U);
    const std::string entry = platform_.systemLog.transactions()[0];
    EXPECT_EQ(entry.rfind("Response: '<masked: ", 0), 0U) << entry;
    EXPECT_EQ(entry.find("secret"), std::string::npos);
    EXPECT_EQ(entry.find("GenericError"), std::string::npos);
}

TEST_F(Message, TransactionsAreNotMadeForALogThatDoesNotRecordThem) {
    platform_.systemLog.recording = false;
    logRequest(std::string("guest-ping"), nullptr);
    logResponse(makeSuccessResponse(JsonObject()));
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(Message, TextFormOfAStringIsTheStringAndOfOthersTheirJson) {
    EXPECT_EQ(textForm(std::string("a\"b")), "a\"b");
    EXPECT_EQ(textForm(JsonNumber::fromSigned(-5)), "-5");
    EXPECT_EQ(textForm(JsonValue()), "null");
}

TEST_F(Message, DiagnosticGoesToStandardErrorAsItIs) {
    testing::internal::CaptureStderr();
    writeDiagnostic("handleSample: id is not a number\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "handleSample: id is not a number\n");
}

TEST_F(Message, DiagnosticThatNobodyReadsDoesNotHoldTheAgent) {
    const int status = exitStatusOf([] {
        std::array<int, 2> ends{};
        ::dup2(::pipe(ends.data()) == 0 ? ends[1] : -1, STDERR_FILENO);
        writeDiagnostic(std::string(1024 * 1024, 'x'));  // more than a pipe holds
        int held = 0;
        ::ioctl(ends[0], FIONREAD, &held);
        ::_exit(held >= 4096 ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Message, DiagnosticThatCannotBeWrittenIsLost) {
    const int status = exitStatusOf([] {
        ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        writeDiagnostic("nobody will know\n");
        ::_exit(0);
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Message, LongStatusEntriesAreWrittenWhole) {
    const std::string text(100000, 'x');
    logStatus(false, "%s\n", text.c_str());
    EXPECT_EQ(platform_.systemLog.status(), std::vector<std::string>{text + "\n"});
}

}  // namespace
}  // namespace corvane
