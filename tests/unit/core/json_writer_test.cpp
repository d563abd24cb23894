#include "core/json_writer.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

using namespace std::string_literals;

std::string written(std::string text) {
    return writeJson(JsonValue(std::move(text)));
}

TEST(JsonWriter, WritesEachKindOfValueCompactly) {
    const JsonValue value = JsonObject{
        {"text", "x"s},
        {"number", JsonNumber::fromUnsigned(5)},
        {"yes", JsonNumber::fromBoolean(true)},
        {"no", JsonNumber::fromBoolean(false)},
        {"nothing", JsonValue()},
        {"list", JsonArray{JsonNumber::fromSigned(-1), JsonArray(), JsonObject()}},
    };
    EXPECT_EQ(writeJson(value),
              R"({"text":"x","number":5,"yes":true,"no":false,"nothing":null,"list":[-1,[],{}]})");
    EXPECT_EQ(writeJson(JsonObject()), "{}");
    EXPECT_EQ(writeJson(JsonArray()), "[]");
    EXPECT_EQ(writeJson(JsonValue()), "null");
}

TEST(JsonWriter, WritesNumbersOfAllWidths) {
    EXPECT_EQ(writeJson(JsonNumber::fromUnsigned(0)), "0");
    EXPECT_EQ(writeJson(JsonNumber::fromUnsigned(UINT64_MAX)), "18446744073709551615");
    EXPECT_EQ(writeJson(JsonNumber::fromSigned(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(writeJson(JsonNumber::fromText("-0.5")), "0");
    EXPECT_EQ(writeJson(JsonNumber::fromText("18446744073709551621")), "5");
}

TEST(JsonWriter, PutsTheTextBetweenPrefixAndSuffix) {
    EXPECT_EQ(writeJson(JsonObject(), "\xFF", "\n"), "\xFF{}\n");
    EXPECT_EQ(writeJson(JsonArray(), "", "\n"), "[]\n");
}

TEST(JsonWriter, EscapesQuotesBackslashesAndControlCharacters) {
    EXPECT_EQ(written("\"\\\b\f\n\r\t"), R"("\"\\\b\f\n\r\t")");
    EXPECT_EQ(written("\0\x01\x0B\x1F"s), R"("\u0000\u0001\u000b\u001f")");
    EXPECT_EQ(written("a\nb"), R"("a\nb")");
    EXPECT_EQ(writeJson(JsonObject{{"a\"b", JsonValue()}}), R"({"a\"b":null})");
}

TEST(JsonWriter, LeavesOtherCharactersAlone) {
    for (const std::string& text :
         {"/<>&'\x7F"s, "\xC2\x80\xC3\xA9\xDF\xBF"s, "\xE0\xA0\x80\xE2\x80\xA8\xED\x9F\xBF"s,
          "\xEE\x80\x80\xEF\xBB\xBF\xEF\xBF\xBD\xEF\xBF\xBF"s,
          "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"s}) {
        EXPECT_EQ(written(text), "\"" + text + "\"");
    }
}

TEST(JsonWriter, ReplacesEachByteThatIsNotUtf8) {
    struct Case {
        std::string bytes;
        std::size_t replacements;
    };
    const std::vector<Case> cases = {
        {"\x80", 1},
        {"\xBF\xBF", 2},
        {"\xC0\x80", 2},
        {"\xC1\xBF", 2},
        {"\xC3", 1},
        {"\xE0\x80\x80", 3},
        {"\xE0\x9F\xBF", 3},
        {"\xE2\x82", 2},
        {"\xED\xA0\x80", 3},
        {"\xED\xBF\xBF", 3},
        {"\xF0\x80\x80\x80", 4},
        {"\xF0\x8F\xBF\xBF", 4},
        {"\xF0\x9F\x98", 3},
        {"\xF4\x90\x80\x80", 4},
        {"\xF5\x80\x80\x80", 4},
        {"\xFE\xFF", 2},
    };
    for (const auto& [bytes, replacements] : cases) {
        std::string expected;
        for (std::size_t i = 0; i < replacements; ++i) {
            expected += "\xEF\xBF\xBD";
        }
        EXPECT_EQ(written(bytes), "\"" + expected + "\"");
        EXPECT_EQ(written("a" + bytes + "b"), "\"a" + expected + "b\"");
        EXPECT_EQ(written("\xC3\xA9" + bytes + "\xC3\xA9"), "\"\xC3\xA9" + expected + "\xC3\xA9\"");
    }
    EXPECT_EQ(written("\xC3("), "\"\xEF\xBF\xBD(\"");
}

TEST(JsonWriter, FindsASpecialByteWhereverItStandsInALongString) {
    // Text is looked at in blocks: each position in and between them must be seen.
    for (std::size_t at = 0; at < 300; ++at) {
        for (const auto& [special, shown] : std::vector<std::pair<std::string, std::string>>{
                 {"\"", "\\\""},
                 {"\x01", "\\u0001"},
                 {"\xC3\xA9", "\xC3\xA9"},
                 {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
                 {"\x80", "\xEF\xBF\xBD"}}) {
            const std::string before(at, 'x');
            const std::string after(300 - at, 'y');
            EXPECT_EQ(written(before + special + after), "\"" + before + shown + after + "\"");
        }
    }
}

TEST(JsonWriter, WritesLongStringsPlainOrNot) {
    const std::string plain(5'000'000, 'x');
    std::string special = plain;
    special[16 * 1024] = '\n';
    special[special.size() - 1] = '"';
    std::string shown = plain;
    shown.replace(shown.size() - 1, 1, "\\\"");
    shown.replace(16 * 1024, 1, "\\n");
    const JsonValue value = JsonArray{plain, special, std::string("\n"), plain, special};
    EXPECT_EQ(writeJson(value),
              "[\"" + plain + "\",\"" + shown + "\",\"\\n\",\"" + plain + "\",\"" + shown + "\"]");
}

TEST(JsonWriter, KeepsCharactersWholeWhereAPieceOfALongStringEnds) {
    const std::string character = "\xF0\x9F\x98\x80";
    for (std::size_t before = 0; before < 5; ++before) {
        std::string text(16 * 1024 - before, 'x');
        for (int i = 0; i < 20'000; ++i) {
            text += character;
        }
        EXPECT_EQ(written(text), "\"" + text + "\"");
    }
}

TEST(JsonWriter, TakesExactlyTheMemoryThatTheTextNeeds) {
    const std::string awkward(100'000, '\x01');
    const std::string text = writeJson(JsonArray{awkward, std::string(100'000, 'x')}, "<", ">");
    EXPECT_EQ(text.size(), 2 + 600'000 + 100'000 + 7);
    EXPECT_EQ(text.capacity(), text.size());
}

TEST(JsonWriter, WritesPlainTextLikeAnyOther) {
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 100'000U}) {
        const std::string text(size, 'x');
        EXPECT_EQ(writeJson(JsonArray{PlainText{text}, text}), writeJson(JsonArray{text, text}));
    }
}

std::string joined(const JsonLine& line) {
    std::string whole;
    for (const std::string_view piece : line.pieces()) {
        whole += piece;
    }
    EXPECT_EQ(line.size(), whole.size());
    return whole;
}

TEST(JsonLine, IsTheSameText) {
    const std::string text(5'000, 'x');
    const std::string awkward(5'000, '\x01');
    const std::vector<JsonValue> values = {
        JsonArray{},
        JsonArray{text, awkward},
        JsonArray{PlainText{text}},
        JsonArray{PlainText{text}, PlainText{text}},
        JsonArray{PlainText{"short"}, awkward, PlainText{text}, text},
        JsonObject{{"a", PlainText{text}}, {text, awkward}, {"b", JsonArray{PlainText{text}}}}};
    for (const JsonValue& value : values) {
        EXPECT_EQ(joined(JsonLine(value, "\xFF", "\n")), writeJson(value, "\xFF", "\n"));
    }
}

TEST(JsonLine, LendsALongPlainTextAndCopiesNoOther) {
    const JsonValue value = JsonArray{PlainText{std::string(100'000, 'x')},
                                      std::string(100'000, 'x'), PlainText{"short"}};
    const JsonLine line(value, "", "\n");
    ASSERT_EQ(line.pieces().size(), 3U);
    EXPECT_EQ(line.pieces()[1].data(), arrayOf(value)[0].string()->data());
    EXPECT_EQ(line.pieces()[1].size(), 100'000U);
}

class CollectingSink final : public JsonTextSink {
 public:
    void append(std::string_view text) override { text_ += text; }
    [[nodiscard]] const std::string& text() const { return text_; }

 private:
    std::string text_;
};

TEST(JsonWriter, GivesASinkTheSameText) {
    std::string bytes;
    std::mt19937 random(3);
    for (int i = 0; i < 100'000; ++i) {
        bytes += static_cast<char>(random() % 256);
    }
    const JsonValue value =
        JsonObject{{"bytes", bytes},
                   {"plain", std::string(50'000, 'x')},
                   {"number", JsonNumber::fromSigned(-12)},
                   {bytes, JsonArray{JsonValue(), JsonNumber::fromBoolean(true)}}};
    CollectingSink sink;
    writeJson(value, sink);
    EXPECT_EQ(sink.text(), writeJson(value));
}

TEST(JsonWriter, AlwaysWritesTextThatTheReaderTakes) {
    std::mt19937 random(9);
    for (int round = 0; round < 2000; ++round) {
        std::string bytes;
        for (std::size_t size = random() % 200; bytes.size() < size;) {
            bytes += static_cast<char>(random() % 256);
        }
        const std::string text = writeJson(JsonArray{bytes});
        EXPECT_EQ(text.find('\n'), std::string::npos);
        EXPECT_TRUE(std::holds_alternative<JsonValue>(readWhole(text))) << text;
    }
}

}  // namespace
}  // namespace corvane
