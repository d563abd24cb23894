#include "commands/exec/window_size.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

using Fields = std::vector<int>;

Fields fieldsOf(const winsize& size) {
    return {size.ws_row, size.ws_col, size.ws_xpixel, size.ws_ypixel};
}

/// Rows, columns, x and y after `text` was read over 1, 2, 3, 4.
Fields readOver(const std::string& text) {
    winsize size{1, 2, 3, 4};
    EXPECT_FALSE(getWindowSize(valueOf(text), size));
    return fieldsOf(size);
}

/// A value that `valueOf` takes only inside another one.
JsonValue scalarOf(const std::string& text) {
    return arrayOf(valueOf("[" + text + "]")).front();
}

void expectFailure(const JsonValue& value, const std::string& message) {
    winsize size{1, 2, 3, 4};
    testing::internal::CaptureStderr();
    const auto error = getWindowSize(value, size);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "getWindowSize: " + message + "\n");
    ASSERT_TRUE(error);
    EXPECT_EQ(writeJson(*error), R"({"error":{"class":"GenericError","desc":")" + message + "\"}}");
    EXPECT_EQ(fieldsOf(size), (Fields{1, 2, 3, 4})) << "untouched";
}

TEST(WindowSize, EachKeyHasItsField) {
    EXPECT_EQ(readOver(R"({"rows":24,"columns":80,"x":640,"y":480})"), (Fields{24, 80, 640, 480}));
}

TEST(WindowSize, AbsentKeysKeepWhatWasThere) {
    EXPECT_EQ(readOver("{}"), (Fields{1, 2, 3, 4}));
    EXPECT_EQ(readOver(R"({"rows":24})"), (Fields{24, 2, 3, 4}));
    EXPECT_EQ(readOver(R"({"columns":80})"), (Fields{1, 80, 3, 4}));
    EXPECT_EQ(readOver(R"({"x":640})"), (Fields{1, 2, 640, 4}));
    EXPECT_EQ(readOver(R"({"y":480})"), (Fields{1, 2, 3, 480}));
}

TEST(WindowSize, OtherKeysAreIgnored) {
    EXPECT_EQ(readOver(R"({"Rows":9,"z":"?","rows":24,"":null})"), (Fields{24, 2, 3, 4}));
}

TEST(WindowSize, NumbersAreCutToSixteenBits) {
    const std::vector<std::pair<std::string, int>> numbers = {
        {"70000", 4464}, {"65535", 65535}, {"65536", 0}, {"-1", 65535}, {"32768", 32768},
        {"24.9", 24},    {"-1.5", 65535},  {"true", 1},  {"false", 0},  {"1e30", 0},
    };
    for (const auto& [text, field] : numbers) {
        EXPECT_EQ(readOver(R"({"rows":)" + text + "}").front(), field) << text;
    }
}

TEST(WindowSize, LastOfSeveralWithOneNameCounts) {
    EXPECT_EQ(readOver(R"({"rows":"24","rows":25})").front(), 25);
}

TEST(WindowSize, ValueOfAnotherKindIsRefused) {
    for (const char* text : {"null", "5", "true", "\"80x24\"", "[24,80]"}) {
        SCOPED_TRACE(text);
        expectFailure(scalarOf(text), "mirel-window-size is not a dictionary");
    }
}

TEST(WindowSize, ValueThatIsNotANumberIsRefusedAndNothingIsStored) {
    expectFailure(valueOf(R"({"rows":24,"columns":"80"})"), "columns is not a number");
    for (const std::string key : {"x", "y", "rows", "columns"}) {
        for (const std::string value : {"null", "\"1\"", "[1]", "{}"}) {
            expectFailure(
                valueOf(R"({"x":9,"y":9,"rows":9,"columns":9,")" + key + "\":" + value + "}"),
                key + " is not a number");
        }
    }
}

}  // namespace
}  // namespace corvane
