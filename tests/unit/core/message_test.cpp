#include "core/message.h"

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

}  // namespace
}  // namespace corvane
