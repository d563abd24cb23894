#include "core/arguments.h"

#include <gtest/gtest.h>

#include "core/json_writer.h"

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

}  // namespace
}  // namespace corvane
