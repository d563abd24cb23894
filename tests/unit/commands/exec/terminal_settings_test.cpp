#include "commands/exec/terminal_settings.h"

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

TerminalSettings settingsOf(const std::string& text) {
    TerminalSettings settings;
    EXPECT_FALSE(getTerminalSettings("handleSample", valueOf(text), settings));
    return settings;
}

void expectFailure(const JsonValue& value, const std::string& message) {
    TerminalSettings settings;
    testing::internal::CaptureStderr();
    const auto error = getTerminalSettings("handleSample", value, settings);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "handleSample: " + message + "\n");
    ASSERT_TRUE(error);
    EXPECT_EQ(stringOf(memberOf(memberOf(*error, "error"), "desc")), message);
    EXPECT_EQ(stringOf(memberOf(memberOf(*error, "error"), "class")), "GenericError");
}

/// Twenty numbers from 0 on, with `text` in place of the one at `index`.
std::string characters(std::size_t index, const std::string& text) {
    std::string list;
    for (std::size_t i = 0; i < 20; ++i) {
        list += (i == 0 ? "" : ",") + (i == index ? text : std::to_string(i));
    }
    return R"({"cc":[)" + list + "]}";
}

TEST(TerminalSettings, EachKeyHasItsField) {
    const TerminalSettings settings =
        settingsOf(R"({"iflag":1,"oflag":2,"cflag":3,"lflag":4,"ispeed":9600,"ospeed":38400})");
    EXPECT_EQ(settings.c_iflag, 1U);
    EXPECT_EQ(settings.c_oflag, 2U);
    EXPECT_EQ(settings.c_cflag, 3U);
    EXPECT_EQ(settings.c_lflag, 4U);
    EXPECT_EQ(settings.c_ispeed, 9600U);
    EXPECT_EQ(settings.c_ospeed, 38400U);
    EXPECT_FALSE(settings.c_cc);
}

TEST(TerminalSettings, AbsentKeysAreZeroAndOthersAreIgnored) {
    const TerminalSettings settings = settingsOf(R"({"oflag":2,"speed":"?"})");
    EXPECT_EQ(settings.c_iflag, 0U);
    EXPECT_EQ(settings.c_oflag, 2U);
    EXPECT_EQ(settings.c_cflag, 0U);
    EXPECT_EQ(settings.c_lflag, 0U);
    EXPECT_EQ(settings.c_ispeed, 0U);
    EXPECT_EQ(settings.c_ospeed, 0U);
    EXPECT_FALSE(settings.c_cc);
}

TEST(TerminalSettings, WordsWrapToSixtyFourBits) {
    const std::vector<std::pair<std::string, std::uint64_t>> words = {
        {"-1", std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551617", 1U},
        {"4294967296", 4294967296U},
        {"2.9", 2U},
        {"true", 1U},
    };
    for (const auto& [text, word] : words) {
        EXPECT_EQ(settingsOf(R"({"iflag":)" + text + "}").c_iflag, word) << text;
        EXPECT_EQ(settingsOf(R"({"ospeed":)" + text + "}").c_ospeed, word) << text;
    }
}

TEST(TerminalSettings, ControlCharactersStandByIndex) {
    const TerminalSettings settings = settingsOf(characters(20, ""));
    ASSERT_TRUE(settings.c_cc);
    for (std::size_t index = 0; index < controlCharacterCount; ++index) {
        EXPECT_EQ((*settings.c_cc)[index], index);
    }
}

TEST(TerminalSettings, ControlCharactersAreCutToEightBits) {
    const std::vector<std::pair<std::string, int>> numbers = {
        {"300", 44}, {"255", 0xFF}, {"-1", 0xFF}, {"256", 0}, {"128", 128}, {"3.9", 3}, {"true", 1},
    };
    for (const auto& [text, character] : numbers) {
        EXPECT_EQ(settingsOf(characters(19, text)).c_cc.value()[19], character) << text;
    }
}

TEST(TerminalSettings, ValueOfAnotherKindIsRefused) {
    for (const char* text : {"null", "5", "\"x\"", "[{}]"}) {
        SCOPED_TRACE(text);
        expectFailure(arrayOf(valueOf("[" + std::string(text) + "]")).front(),
                      "mirel-termios is not a dictionary");
    }
}

TEST(TerminalSettings, WordsMustBeNumbersAndTheFirstFailureIsTold) {
    const std::vector<std::string> keys = {"iflag", "oflag", "cflag", "lflag", "ispeed", "ospeed"};
    // Each time one more from the front is right.
    for (std::size_t right = 0; right < keys.size(); ++right) {
        std::string members = R"("cc":5)";
        for (std::size_t index = 0; index < keys.size(); ++index) {
            members += ",\"" + keys[index] + (index < right ? "\":1" : "\":null");
        }
        expectFailure(valueOf("{" + members + "}"), keys[right] + " is not a number");
    }
}

TEST(TerminalSettings, ControlCharactersMustBeAnArrayOfTwenty) {
    for (const char* text : {"null", "5", "\"x\"", "{}"}) {
        expectFailure(valueOf(R"({"cc":)" + std::string(text) + "}"), "cc is not an array");
    }
    expectFailure(valueOf(R"({"cc":[]})"), "cc must be length 20");
    expectFailure(valueOf(R"({"cc":[0,1,2]})"), "cc must be length 20");
    expectFailure(valueOf(characters(3, "0,0")), "cc must be length 20");
}

TEST(TerminalSettings, ControlCharacterThatIsNotANumberIsShownInItsTextForm) {
    const std::vector<std::pair<std::string, std::string>> elements = {
        {R"("x")", "x"},  {R"("")", ""},  {R"("3")", "3"},
        {"null", "null"}, {"[1]", "[1]"}, {R"({"a":[true]})", R"({"a":[true]})"},
    };
    for (const auto& [text, shown] : elements) {
        expectFailure(valueOf(characters(5, text)),
                      "cc value '" + shown + "' at index 5 is not a number");
    }
    expectFailure(valueOf(characters(0, "null")), "cc value 'null' at index 0 is not a number");
    expectFailure(valueOf(characters(19, "null")), "cc value 'null' at index 19 is not a number");
}

TEST(TerminalSettings, FirstFailingControlCharacterIsTold) {
    std::string text = characters(7, "\"seven\"");
    text.replace(text.find(",12,") + 1, 2, "null");
    expectFailure(valueOf(text), "cc value 'seven' at index 7 is not a number");
}

}  // namespace
}  // namespace corvane
