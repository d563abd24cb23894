// Strings that are longer than what the parser is given at once, in lines that come in parts.

#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/json_reader.h"
#include "core/json_writer.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

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
