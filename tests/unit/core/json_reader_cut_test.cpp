// Lines that come in parts, and strings that are longer than what the parser is given at once.

#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_reader.h"
#include "core/json_writer.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

const std::vector<std::string>& trickyTexts() {
    static const std::vector<std::string> texts = {
        R"({"execute":"guest-exec","arguments":{"path":"/bin/\u00e9","arg":["a","b\\\"c"]}})",
        R"([1,-2,3.5,-4.25e10,5E-3,18446744073709551621,-9223372036854775809,1e400,0,-0,0.0])",
        R"([true,false,null,[],{},"",[[]],[{}],{"":{"":""}}])",
        R"(["\ud83d\ude00x\u20ac\u0000\b\f\n\r\t\/","\ud83d\ude00","\u00e9"])",
        "[\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\",\"x\xF0\x9F\x98\x80\",\"\\n\xF0\x9F\x98\x80z\"]",
        "{\"\xF0\x9F\x98\x80\":1,\"\\ud83d\\ude00\\n\":2,\"plain key of some length\":3}",
        " \t[ \r\n 1 , 2 ] \r",
        R"({"a":1,"a":2,"b":[1e5,{"c":"\\"}]})",
        "[123456789012345678901234567890.125e-10,1234567890123456,12345678901234567,1.5]",
        "[\"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz\\u00e9abcdefghijklmnopqrstuvw\"]",
        "{} x",
        "[1,]",
        R"(["\ud800\u0041"])",
        "[\"\xED\xA0\x80\"]",
        "[\"\\n\xF0\x9F\x98\"]",
        R"(["\ud83d\ude0"])",
        "[nulx]",
        "[01]",
    };
    return texts;
}

void expectSameOutcome(const JsonOutcome& expected, const JsonOutcome& outcome,
                       std::string_view text) {
    ASSERT_EQ(expected.index(), outcome.index()) << text.substr(0, 200);
    if (const auto* value = std::get_if<JsonValue>(&expected)) {
        EXPECT_TRUE(sameValue(*value, std::get<JsonValue>(outcome))) << text.substr(0, 200);
    }
}

TEST(JsonReaderCut, ReadsTheSameWhereverATextIsCutInTwo) {
    for (const std::string& text : trickyTexts()) {
        const JsonOutcome whole = readWhole(text);
        for (std::size_t at = 0; at <= text.size(); ++at) {
            expectSameOutcome(whole, readInTwo(text, at), text);
        }
    }
}

TEST(JsonReaderCut, ReadsTheSameInPiecesOfAnySize) {
    for (const std::string& text : trickyTexts()) {
        const JsonOutcome whole = readWhole(text);
        for (const std::size_t size : {1U, 2U, 3U, 5U, 7U, 16U, 33U}) {
            expectSameOutcome(whole, readInPieces(text, size), text);
        }
    }
}

TEST(JsonReaderCut, ReadsTheSameWhereverItsOwnPiecesEnd) {
    // The reader cuts long slices itself. White space before a text moves it across those cuts.
    for (const std::string& text : trickyTexts()) {
        const JsonOutcome whole = readWhole(text);
        for (std::size_t before = 850; before < 1060; ++before) {
            expectSameOutcome(whole, readWhole(std::string(before, ' ') + text), text);
        }
    }
}

TEST(JsonReaderCut, DecodesAnEscapeCutByAReadBeforeALongRest) {
    // Resumed inside the escape, the parser's buffer takes more than what is left of the input.
    const std::string rest(20000, 'x');
    for (const std::string_view start :
         {R"(["\n\u20a)", R"(["\u20a)", R"(["\ud83d\ude0)", "[\"\xE2\x82", "[\"\\n\xF0\x9F\x98"}) {
        for (const std::string_view end : {"c", "0", "\xAC", "\x80"}) {
            RequestLine line;
            line.push_back(InputSlice::copyOf(start));
            line.push_back(InputSlice::copyOf(std::string(end) + rest + "\"]"));
            const std::string text = std::string(start) + std::string(end) + rest + "\"]";
            expectSameOutcome(readInPieces(text, 64), readJson(std::move(line)), text);
        }
    }
}

/// A JSON text of something, and what it stands for.
struct Something {
    std::string_view text;
    std::string_view meaning;
};

constexpr Something somethings[] = {
    {"", ""},
    {"\x7F", "\x7F"},
    {"\\n", "\n"},
    {"\\\"", "\""},
    {"\\\\", "\\"},
    {"\\u00e9", "\xC3\xA9"},
    {"\\ud83d\\ude00", "\xF0\x9F\x98\x80"},
    {"\xC3\xA9", "\xC3\xA9"},
    {"\xE2\x82\xAC", "\xE2\x82\xAC"},
    {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
    {R"(",")", ""},  // the string ends, and another begins
};

/// The strings of an array, joined.
std::string stringsIn(JsonOutcome outcome) {
    std::string all;
    if (const auto* value = std::get_if<JsonValue>(&outcome)) {
        for (const JsonValue& element : arrayOf(*value)) {
            all += stringOf(element);
        }
    }
    return all;
}

TEST(JsonReaderCut, AStringIsTheSameWhereverTheLineIsCutAndWhateverIsInIt) {
    const std::string before(1500, 'b');
    const std::string after(1500, 'a');
    for (const Something& something : somethings) {
        std::string line = "[\"" + before;
        line.append(something.text).append(after).append("\"]");
        const std::string expected = before + std::string(something.meaning) + after;
        for (std::size_t cut = 0; cut < line.size(); ++cut) {
            ASSERT_EQ(stringsIn(readInTwo(line, cut)), expected)
                << something.text << " cut at " << cut;
        }
    }
}

TEST(JsonReaderCut, WhatIsRefusedIsRefusedWhereverItStandsInALongString) {
    for (const std::string_view wrong :
         {"\x01", "\t", "\xFF", "\xC3x", "\xED\xA0\x80", "\\x", "\\u12x4"}) {
        for (std::size_t before = 0; before < 2500; before += 7) {
            std::string line = "[\"" + std::string(before, 'b');
            line.append(wrong).append(std::string(1500, 'a')).append("\"]");
            for (const std::size_t cut : {std::size_t{1}, before, before + 2, before + 3}) {
                ASSERT_TRUE(std::holds_alternative<JsonError>(readInTwo(line, cut)))
                    << before << " cut at " << cut;
            }
        }
    }
}

TEST(JsonReaderCut, AnUnfinishedLongStringIsRefused) {
    for (std::size_t size = 900; size < 2200; ++size) {
        EXPECT_TRUE(std::holds_alternative<JsonError>(readWhole("[\"" + std::string(size, 'x'))));
    }
}

TEST(JsonReaderCut, TheErrorNamesItsPlaceBehindPlainText) {
    const std::string line = "[\"" + std::string(5000, 'x') + "\x01\"]";
    const JsonOutcome outcome = readWhole(line);
    const auto* error = std::get_if<JsonError>(&outcome);
    ASSERT_NE(error, nullptr);
    EXPECT_NE(error->description.find("at byte 5002"), std::string::npos) << error->description;
}

TEST(JsonReaderCut, RandomStringsInRandomPartsReadTheSame) {
    std::mt19937 random(41);
    for (int round = 0; round < 300; ++round) {
        std::string text;
        while (text.size() < 20'000) {
            text.append(random() % 3000, 'x');
            text.append(std::begin(somethings)[random() % 10].meaning);
        }
        const std::string line = writeJson(JsonArray{text, std::string("end")});
        const JsonOutcome outcome = readInPieces(line, 1 + random() % 9000);
        ASSERT_EQ(stringsIn(outcome), text + "end") << round;
    }
}

}  // namespace
}  // namespace corvane
