#include "core/plain_text.h"

#include <string>

#include <gtest/gtest.h>

namespace corvane {
namespace {

bool needsEscape(int code) {
    return code < 0x20 || code >= 0x80 || code == '"' || code == '\\';
}

TEST(PlainText, IsAllThatStandsForItself) {
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(isPlain(static_cast<char>(code)), !needsEscape(code)) << code;
    }
}

TEST(PlainText, EndsAtEachOtherCharacterWhereverItStands) {
    constexpr std::size_t length = 200;
    for (int code = 0; code < 256; ++code) {
        for (std::size_t at = 0; at < length; ++at) {
            std::string text(length, ' ');
            text[at] = static_cast<char>(code);
            const std::size_t expected = needsEscape(code) ? at : length;
            ASSERT_EQ(plainLength(text), expected) << code << " at " << at;
            ASSERT_EQ(portablePlainLength(text), expected) << code << " at " << at;
        }
    }
}

TEST(PlainText, EndsWithTheTextWhateverItsLengthAndWhateverFollows) {
    const std::string text = std::string(300, 'x') + std::string(100, '"');
    for (std::size_t length = 0; length <= 300; ++length) {
        ASSERT_EQ(plainLength({text.data() + 300 - length, length}), length);
        ASSERT_EQ(plainLength({text.data(), length}), length);
        ASSERT_EQ(portablePlainLength({text.data(), length}), length);
    }
}

}  // namespace
}  // namespace corvane
