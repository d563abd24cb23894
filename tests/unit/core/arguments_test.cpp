#include "core/arguments.h"

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {
namespace {

JsonObject sample() {
    return JsonObject{{"number", JsonNumber::fromSigned(-3)},
                      {"boolean", JsonNumber::fromBoolean(true)},
                      {"string", std::string("text")},
                      {"array", JsonArray{JsonValue()}},
                      {"object", JsonObject()},
                      {"null", JsonValue()}};
}

/// What a handler that makes one read answers and writes to standard error.
struct Outcome {
    std::string answer;
    std::string standardError;
};

template <typename Read>
Outcome outcomeOf(Read read, const JsonObject* arguments) {
    testing::internal::CaptureStderr();
    ArgumentReader reader("handleSample", arguments);
    read(reader);
    Outcome outcome;
    outcome.answer = reader.failed() ? writeJson(reader.takeError()) : "fine";
    outcome.standardError = testing::internal::GetCapturedStderr();
    return outcome;
}

std::string genericAnswer(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
}

TEST(Arguments, AbsentObjectIsMissingArgumentsAndNotWrittenToStandardError) {
    const Outcome outcome = outcomeOf([](ArgumentReader& r) { r.requireNumber("id"); }, nullptr);
    EXPECT_EQ(outcome.answer, genericAnswer("missing arguments"));
    EXPECT_EQ(outcome.standardError, "");
}

TEST(Arguments, EachTypeHasItsMessageOnBothChannels) {
    const JsonObject arguments = sample();
    using Read = void (*)(ArgumentReader&, const char*);
    const std::vector<std::pair<Read, std::string>> reads = {
        {[](ArgumentReader& r, const char* k) { r.requireNumber(k); }, " is not a number"},
        {[](ArgumentReader& r, const char* k) { r.requireString(k); }, " is not a string"},
        {[](ArgumentReader& r, const char* k) { r.requireArray(k); }, " is not an array"},
        {[](ArgumentReader& r, const char* k) { r.requireObject(k); }, " is not a dictionary"}};
    const std::vector<std::vector<const char*>> wrongKeys = {
        {"string", "array", "object", "null", "absent"},
        {"number", "boolean", "array", "object", "null", "absent"},
        {"number", "boolean", "string", "object", "null", "absent"},
        {"number", "boolean", "string", "array", "null", "absent"}};
    for (std::size_t type = 0; type < reads.size(); ++type) {
        for (const char* key : wrongKeys[type]) {
            const Outcome outcome =
                outcomeOf([&](ArgumentReader& r) { reads[type].first(r, key); }, &arguments);
            const std::string message = key + reads[type].second;
            EXPECT_EQ(outcome.answer, genericAnswer(message));
            EXPECT_EQ(outcome.standardError, "handleSample: " + message + "\n");
        }
    }
}

TEST(Arguments, RightTypesAreRead) {
    const JsonObject arguments = sample();
    ArgumentReader reader("handleSample", &arguments);
    EXPECT_EQ(reader.requireNumber("number").asSigned64(), -3);
    EXPECT_EQ(*reader.requireString("string"), "text");
    EXPECT_EQ(reader.requireArray("array")->size(), 1U);
    EXPECT_TRUE(reader.requireObject("object")->members().empty());
    EXPECT_FALSE(reader.failed());
}

TEST(Arguments, BooleanPassesAsANumber) {
    const JsonObject arguments = sample();
    ArgumentReader reader("handleSample", &arguments);
    EXPECT_EQ(reader.requireNumber("boolean").asUnsigned64(), 1U);
    EXPECT_FALSE(reader.failed());
}

TEST(Arguments, OptionalArgumentsMayBeAbsent) {
    const JsonObject arguments = sample();
    ArgumentReader reader("handleSample", &arguments);
    EXPECT_FALSE(reader.optionalNumber("absent"));
    EXPECT_EQ(reader.optionalString("absent"), nullptr);
    EXPECT_EQ(reader.optionalArray("absent"), nullptr);
    EXPECT_EQ(reader.optionalObject("absent"), nullptr);
    EXPECT_FALSE(reader.failed());
    EXPECT_EQ(reader.optionalNumber("number")->asSigned32(), -3);
    EXPECT_EQ(*reader.optionalString("string"), "text");
    EXPECT_NE(reader.optionalArray("array"), nullptr);
    EXPECT_NE(reader.optionalObject("object"), nullptr);
    EXPECT_FALSE(reader.failed());
}

TEST(Arguments, OptionalArgumentOfAnotherTypeFailsAndNullIsAnotherType) {
    const JsonObject arguments = sample();
    const auto answer = [&](auto read) { return outcomeOf(read, &arguments).answer; };
    EXPECT_EQ(answer([](ArgumentReader& r) { r.optionalNumber("null"); }),
              genericAnswer("null is not a number"));
    EXPECT_EQ(answer([](ArgumentReader& r) { r.optionalString("number"); }),
              genericAnswer("number is not a string"));
    EXPECT_EQ(answer([](ArgumentReader& r) { r.optionalArray("object"); }),
              genericAnswer("object is not an array"));
    EXPECT_EQ(answer([](ArgumentReader& r) { r.optionalObject("array"); }),
              genericAnswer("array is not a dictionary"));
}

TEST(Arguments, FirstFailureWinsAndIsTheOnlyOneWritten) {
    const JsonObject arguments = sample();
    const Outcome outcome = outcomeOf(
        [](ArgumentReader& r) {
            r.requireString("number");
            r.requireNumber("string");
            EXPECT_FALSE(r.has("number"));
            EXPECT_EQ(r.requireNumber("number").asUnsigned64(), 0U);
            r.fail("later");
            r.failQuietly("latest");
        },
        &arguments);
    EXPECT_EQ(outcome.answer, genericAnswer("number is not a string"));
    EXPECT_EQ(outcome.standardError, "handleSample: number is not a string\n");
}

TEST(Arguments, OwnMessagesGoToBothChannelsOrToTheAnswerAlone) {
    const JsonObject arguments = sample();
    const Outcome loud = outcomeOf([](ArgumentReader& r) { r.fail("no good"); }, &arguments);
    EXPECT_EQ(loud.answer, genericAnswer("no good"));
    EXPECT_EQ(loud.standardError, "handleSample: no good\n");
    const Outcome quiet = outcomeOf([](ArgumentReader& r) { r.failQuietly("no go"); }, &arguments);
    EXPECT_EQ(quiet.answer, genericAnswer("no go"));
    EXPECT_EQ(quiet.standardError, "");
}

TEST(Arguments, LastOfSeveralWithOneNameCounts) {
    const JsonObject arguments{{"a", std::string("x")}, {"a", JsonNumber::fromUnsigned(4)}};
    ArgumentReader reader("handleSample", &arguments);
    EXPECT_EQ(reader.requireNumber("a").asUnsigned64(), 4U);
}

TEST(Arguments, OptionalNumberOfAnotherTypeIsNothingRatherThanZero) {
    const JsonObject arguments = sample();
    outcomeOf([](ArgumentReader& r) { EXPECT_FALSE(r.optionalNumber("string")); }, &arguments);
}

TEST(Arguments, StringsOfAnArrayAreCopiedInOrder) {
    const JsonObject arguments{
        {"list", JsonArray{std::string("b"), std::string(), std::string("a")}},
        {"empty", JsonArray()}};
    ArgumentReader reader("handleSample", &arguments);
    EXPECT_EQ(reader.optionalStrings("list"), (std::vector<std::string>{"b", "", "a"}));
    EXPECT_EQ(reader.optionalStrings("empty"), std::vector<std::string>());
    EXPECT_EQ(reader.optionalStrings("absent"), std::nullopt);
    EXPECT_FALSE(reader.failed());
}

TEST(Arguments, ElementThatIsNotAStringIsAFailureOfItsOwn) {
    const JsonObject arguments{{"list", JsonArray{std::string("b"), JsonValue()}},
                               {"text", std::string("b")}};
    const auto read = [&](const char* key) {
        return outcomeOf([&](ArgumentReader& r) { EXPECT_FALSE(r.optionalStrings(key)); },
                         &arguments);
    };
    EXPECT_EQ(read("list").answer, genericAnswer("list parameter is not a string"));
    EXPECT_EQ(read("list").standardError, "handleSample: list parameter is not a string\n");
    EXPECT_EQ(read("text").answer, genericAnswer("text is not an array"));
}

TEST(Arguments, ValueOfAnyTypeIsLentUntilAFailure) {
    const JsonObject arguments = sample();
    outcomeOf(
        [](ArgumentReader& r) {
            ASSERT_NE(r.optionalValue("null"), nullptr);
            EXPECT_TRUE(r.optionalValue("null")->isNull());
            EXPECT_EQ(r.optionalValue("absent"), nullptr);
            r.failQuietly("over");
            EXPECT_EQ(r.optionalValue("null"), nullptr);
        },
        &arguments);
}

TEST(Arguments, StandardErrorMayGetAnotherTextThanTheAnswer) {
    const JsonObject arguments = sample();
    const Outcome outcome = outcomeOf(
        [](ArgumentReader& r) {
            r.fail("gone", "/secret gone");
            r.fail("later", "later");
        },
        &arguments);
    EXPECT_EQ(outcome.answer, genericAnswer("gone"));
    EXPECT_EQ(outcome.standardError, "handleSample: /secret gone\n");
}

TEST(Arguments, ObjectInsideIsReadByAReaderOfItsOwn) {
    const JsonValue inside = JsonObject{{"n", JsonNumber::fromUnsigned(4)}};
    ArgumentReader reader("handleInside", "outer", inside);
    EXPECT_EQ(reader.requireNumber("n").asUnsigned64(), 4U);
    EXPECT_FALSE(reader.failed());
}

TEST(Arguments, ValueInsideThatIsNoObjectFailsUnderItsKey) {
    for (const JsonValue& inside :
         {JsonValue(), JsonValue(JsonArray()), JsonValue(std::string("x"))}) {
        testing::internal::CaptureStderr();
        ArgumentReader reader("handleInside", "outer", inside);
        EXPECT_FALSE(reader.has("n"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "handleInside: outer is not a dictionary\n");
        EXPECT_EQ(writeJson(reader.takeError()), genericAnswer("outer is not a dictionary"));
    }
}

TEST(Arguments, FailureOfAnotherReaderIsTakenOverWithoutBeingWrittenAgain) {
    const JsonObject arguments = sample();
    const JsonValue inner = makeErrorResponse(genericError, "inner");
    const Outcome outcome = outcomeOf(
        [&](ArgumentReader& r) {
            r.failWith(std::nullopt);
            EXPECT_FALSE(r.failed());
            r.failWith(inner);
            r.failWith(makeErrorResponse(genericError, "later"));
        },
        &arguments);
    EXPECT_EQ(outcome.answer, genericAnswer("inner"));
    EXPECT_EQ(outcome.standardError, "");
}

}  // namespace
}  // namespace corvane
