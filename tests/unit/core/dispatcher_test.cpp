#include "core/dispatcher.h"

#include <new>
#include <stdexcept>

#include <gtest/gtest.h>

#include "core/command_table.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

JsonValue answerWithArguments(const JsonObject* arguments) {
    return makeSuccessResponse(JsonNumber::fromBoolean(arguments != nullptr));
}

JsonValue answerPlainly() {
    return makeSuccessResponse(std::string("plain"));
}

JsonValue answerSecond(const JsonObject* /*arguments*/) {
    return makeSuccessResponse(std::string("second"));
}

JsonValue runOutOfMemory(const JsonObject* /*arguments*/) {
    throw std::bad_alloc();
}

constexpr Command commands[] = {
    {"with", answerWithArguments, 1, ReportCondition::always},
    {"plain", answerPlainly, 2, ReportCondition::always},
    {"plain", answerSecond, 3, ReportCondition::always},
    {"hungry", runOutOfMemory, 4, ReportCondition::always},
};

JsonValue requestOf(JsonValue execute) {
    return JsonObject{{"execute", std::move(execute)}};
}

JsonValue requestOf(const char* execute, JsonValue arguments) {
    return JsonObject{{"execute", std::string(execute)}, {"arguments", std::move(arguments)}};
}

std::string errorText(const std::string& errorClass, const std::string& description) {
    return R"({"error":{"class":")" + errorClass + R"(","desc":")" + description + "\"}}";
}

class Dispatcher : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(commands); }
    void TearDown() override { useCommandTable({}); }

    static std::string answer(const JsonValue& request) {
        return writeJson(dispatchRequest(request));
    }

    FakePlatform platform_;
};

TEST_F(Dispatcher, ArrayIsNotARequest) {
    const JsonValue request = JsonArray{JsonNumber::fromUnsigned(1), JsonNumber::fromUnsigned(2)};
    EXPECT_EQ(answer(request), errorText("GenericError", "request is not a dictionary"));
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(Dispatcher, RequestWithoutExecuteIsRefused) {
    const JsonValue request = JsonObject{{"arguments", JsonObject()}};
    EXPECT_EQ(answer(request), errorText("GenericError", "cannot find 'execute' key"));
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(Dispatcher, MissingExecuteIsFoundBeforeBadArguments) {
    const JsonValue request = JsonObject{{"arguments", JsonNumber::fromUnsigned(5)}};
    EXPECT_EQ(answer(request), errorText("GenericError", "cannot find 'execute' key"));
}

TEST_F(Dispatcher, ArgumentsThatAreNoObjectAreRefusedAndNotLogged) {
    const std::string refusal = errorText("GenericError", "arguments is not a dictionary");
    EXPECT_EQ(answer(requestOf("with", JsonValue())), refusal);
    EXPECT_EQ(answer(requestOf("with", JsonNumber::fromUnsigned(5))), refusal);
    EXPECT_EQ(answer(requestOf("with", std::string("{}"))), refusal);
    EXPECT_EQ(answer(requestOf("with", JsonArray())), refusal);
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(Dispatcher, BadArgumentsAreFoundBeforeAnExecuteOfAnotherType) {
    const JsonValue request = JsonObject{{"execute", JsonNumber::fromUnsigned(5)},
                                         {"arguments", JsonNumber::fromUnsigned(5)}};
    EXPECT_EQ(answer(request), errorText("GenericError", "arguments is not a dictionary"));
}

TEST_F(Dispatcher, AbsentArgumentsDifferFromEmptyOnes) {
    EXPECT_EQ(answer(requestOf(std::string("with"))), R"({"return":false})");
    EXPECT_EQ(answer(requestOf("with", JsonObject())), R"({"return":true})");
}

TEST_F(Dispatcher, PlainCommandIgnoresArguments) {
    EXPECT_EQ(answer(requestOf("plain", JsonObject{{"x", JsonNumber::fromUnsigned(1)}})),
              R"({"return":"plain"})");
}

TEST_F(Dispatcher, FirstMatchOfTheTableWins) {
    EXPECT_EQ(answer(requestOf(std::string("plain"))), R"({"return":"plain"})");
}

TEST_F(Dispatcher, OtherKeysAreIgnored) {
    const JsonValue request =
        JsonObject{{"execute", std::string("plain")}, {"id", JsonNumber::fromUnsigned(9)}};
    EXPECT_EQ(answer(request), R"({"return":"plain"})");
}

TEST_F(Dispatcher, NamesAreComparedExactly) {
    EXPECT_EQ(answer(requestOf(std::string("Plain"))),
              errorText("CommandNotFound", "Invalid command 'Plain'"));
    EXPECT_EQ(answer(requestOf(std::string("plain "))),
              errorText("CommandNotFound", "Invalid command 'plain '"));
    EXPECT_EQ(answer(requestOf(std::string())), errorText("CommandNotFound", "Invalid command ''"));
    EXPECT_EQ(answer(requestOf(std::string("plain\0", 6))),
              errorText("CommandNotFound", "Invalid command 'plain\\u0000'"));
}

TEST_F(Dispatcher, UnknownCommandIsLoggedAndItsTransactionToo) {
    answer(requestOf(std::string("Guest-Ping")));
    EXPECT_EQ(platform_.systemLog.status(),
              std::vector<std::string>{"Unknown command: Guest-Ping\n"});
    EXPECT_EQ(platform_.systemLog.transactions().size(), 2U);
}

TEST_F(Dispatcher, UnknownCommandOfAnyLengthIsLoggedWhole) {
    const std::string name(200000, 'n');
    answer(requestOf(name));
    EXPECT_EQ(platform_.systemLog.status(),
              std::vector<std::string>{"Unknown command: " + name + "\n"});
}

TEST_F(Dispatcher, DispatchedRequestAndResponseAreLoggedInOrder) {
    answer(requestOf(std::string("plain")));
    const auto entries = platform_.systemLog.transactions();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].rfind("Request: 'plain ", 0), 0U);
    EXPECT_EQ(entries[1].rfind("Response: '", 0), 0U);
}

TEST_F(Dispatcher, ExecuteOfAnotherTypeThrowsAfterTheRequestIsLogged) {
    const std::vector<JsonValue> values = {JsonNumber::fromUnsigned(5),
                                           JsonNumber::fromBoolean(true), JsonArray(), JsonObject(),
                                           JsonValue()};
    std::size_t logged = 0;
    for (const JsonValue& value : values) {
        EXPECT_THROW(dispatchRequest(requestOf(value)), std::invalid_argument);
        EXPECT_EQ(platform_.systemLog.transactions().size(), ++logged);
    }
    EXPECT_EQ(platform_.systemLog.transactions()[0].rfind("Request: '5 ", 0), 0U);
}

TEST_F(Dispatcher, MemoryThatRunsOutInAHandlerIsAnErrorResponse) {
    EXPECT_EQ(answer(requestOf(std::string("hungry"))), errorText("GenericError", "out of memory"));
    EXPECT_EQ(platform_.systemLog.transactions().size(), 2U);
}

}  // namespace
}  // namespace corvane
