#include "core/pending_input.h"

#include <chrono>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace corvane {
namespace {

using namespace std::string_view_literals;

std::string joined(const RequestLine& line) {
    std::string text;
    for (const InputSlice& slice : line) {
        EXPECT_FALSE(slice.bytes().empty());
        text += slice.bytes();
    }
    return text;
}

std::vector<std::string> takeAll(PendingInput& pending) {
    std::vector<std::string> lines;
    while (const auto line = pending.takeLine()) {
        lines.push_back(joined(*line));
    }
    return lines;
}

using Lines = std::vector<std::string>;

TEST(PendingInput, HasNoLineBeforeItsLineFeedArrives) {
    PendingInput pending;
    EXPECT_EQ(pending.takeLine(), std::nullopt);
    pending.append("{\"execute\":"sv);
    EXPECT_EQ(pending.takeLine(), std::nullopt);
    EXPECT_EQ(pending.size(), 11U);
    pending.append("1}\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"{\"execute\":1}"});
    EXPECT_EQ(pending.size(), 0U);
}

TEST(PendingInput, CutsSeveralLinesOutOfOneRead) {
    PendingInput pending;
    pending.append("one\ntwo\nthr"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"one", "two"}));
    EXPECT_EQ(pending.size(), 3U);
    pending.append("ee\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"three"});
}

TEST(PendingInput, GivesEmptyLinesWithoutSlices) {
    PendingInput pending;
    pending.append("\n\na\n\n"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"", "", "a", ""}));
    pending.append("b"sv);
    pending.append("\n\n"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"b", ""}));
}

TEST(PendingInput, KeepsACarriageReturnAndANulInTheLine) {
    PendingInput pending;
    pending.append("a\r\nb\0c\n"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"a\r", std::string("b\0c", 3)}));
}

TEST(PendingInput, DropsEverythingUpToAResetMarker) {
    PendingInput pending;
    pending.append("garbage\xFF{}\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"{}"});
    pending.append("gar"sv);
    pending.append("bage"sv);
    pending.append("\xFF"sv);
    EXPECT_EQ(pending.takeLine(), std::nullopt);
    EXPECT_EQ(pending.size(), 0U);
    pending.append("[]\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"[]"});
}

TEST(PendingInput, ActsOnTheLastOfSeveralResetMarkers) {
    PendingInput pending;
    pending.append(
        "a\xFF\xFF"
        "b\xFF"
        "c\nd\xFF\ne\xFF"
        "f"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"c", ""}));
    EXPECT_EQ(pending.size(), 1U);
    pending.append("\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"f"});
}

TEST(PendingInput, LeavesLinesBeforeAResetMarkerAlone) {
    PendingInput pending;
    pending.append("kept\ndropped\xFFkept too\n"sv);
    EXPECT_EQ(takeAll(pending), (Lines{"kept", "kept too"}));
}

TEST(PendingInput, IgnoresAnEmptyAppend) {
    PendingInput pending;
    pending.append(""sv);
    pending.append("a"sv);
    pending.append(""sv);
    pending.append("\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"a"});
}

TEST(PendingInput, OutlivesTheLinesCutFromIt) {
    PendingInput pending;
    std::optional<RequestLine> line;
    {
        const std::string read = "first\nsecond\n";
        pending.append(read);
        line = pending.takeLine();
    }
    EXPECT_EQ(takeAll(pending), Lines{"second"});
    EXPECT_EQ(joined(*line), "first");
}

TEST(PendingInput, GivesLinesThatOutliveIt) {
    auto pending = std::make_optional<PendingInput>();
    pending->append("some text\nmore"sv);
    const auto line = pending->takeLine();
    pending.reset();
    EXPECT_EQ(joined(*line), "some text");
}

TEST(PendingInput, DropsTheRestOfAnAbandonedLine) {
    PendingInput pending;
    pending.append("begin"sv);
    EXPECT_EQ(pending.takeLine(), std::nullopt);
    pending.abandonLine();
    EXPECT_EQ(pending.size(), 0U);
    pending.append("middle"sv);
    pending.append("end\nnext\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"next"});
}

TEST(PendingInput, EndsAnAbandonedLineAtAResetMarkerToo) {
    PendingInput pending;
    pending.append("begin"sv);
    pending.abandonLine();
    pending.append("x\xFFnext\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"next"});
}

TEST(PendingInput, EndsAnAbandonedLineWithTheLastByteOfARead) {
    PendingInput pending;
    pending.abandonLine();
    pending.append("x\n"sv);
    EXPECT_EQ(pending.size(), 0U);
    pending.append("next\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"next"});
}

TEST(PendingInput, KeepsTheLinesBehindACompleteLineThatIsAbandoned) {
    PendingInput pending;
    pending.append("too"sv);
    pending.append(" large\nnext\n"sv);
    pending.abandonLine();
    EXPECT_EQ(takeAll(pending), Lines{"next"});
}

TEST(PendingInput, TellsALineThatWasGivenUpBefore) {
    PendingInput pending;
    pending.append("first"sv);
    EXPECT_TRUE(pending.abandonLine());
    EXPECT_FALSE(pending.abandonLine());
    pending.append(" of it\nnext"sv);
    EXPECT_TRUE(pending.abandonLine());
}

TEST(PendingInput, LineThatWasGivenUpEndsWithWhoSentIt) {
    PendingInput pending;
    pending.append("first"sv);
    pending.abandonLine();
    pending.endAbandonedLine();
    pending.append("next\n"sv);
    EXPECT_EQ(takeAll(pending), Lines{"next"});
}

TEST(PendingInput, GivesTheSameLinesHoweverTheBytesAreCut) {
    std::mt19937 random(7);
    const std::string_view alphabet = "ab\n\xFF";
    for (int round = 0; round < 2000; ++round) {
        std::string input;
        for (std::size_t size = random() % 40; input.size() < size;) {
            input += alphabet[random() % alphabet.size()];
        }
        Lines expected;
        std::string current;
        for (const char byte : input) {
            if (byte == '\n') {
                expected.push_back(current);
                current.clear();
            } else if (byte == '\xFF') {
                current.clear();
            } else {
                current += byte;
            }
        }
        PendingInput pending;
        Lines lines;
        for (std::string_view rest = input; !rest.empty();) {
            const std::string_view piece = rest.substr(0, 1 + random() % 8);
            pending.append(piece);
            rest.remove_prefix(piece.size());
            if (random() % 2 == 0) {
                for (auto& line : takeAll(pending)) {
                    lines.push_back(std::move(line));
                }
            }
        }
        for (auto& line : takeAll(pending)) {
            lines.push_back(std::move(line));
        }
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(pending.size(), current.size());
    }
}

// The next three would run for hours if any byte were searched again and again; the limit on time
// of the whole test run is what they fail by.

TEST(PendingInput, StaysLinearWithAMillionLinesInOneSlice) {
    constexpr std::size_t count = 4'000'000;
    PendingInput pending;
    pending.append(std::string(count, '\n'));
    std::size_t lines = 0;
    while (pending.takeLine()) {
        ++lines;
    }
    EXPECT_EQ(lines, count);
}

TEST(PendingInput, StaysLinearWithMillionsOfResetMarkers) {
    constexpr std::size_t count = 16'000'000;
    PendingInput pending;
    pending.append(std::string(count, '\xFF') + "x\n");
    EXPECT_EQ(takeAll(pending), Lines{"x"});
}

TEST(PendingInput, StaysLinearInReadsOfOneByte) {
    constexpr std::size_t count = 4'000'000;
    PendingInput pending;
    for (std::size_t i = 0; i < count; ++i) {
        pending.append("x"sv);
        ASSERT_EQ(pending.takeLine(), std::nullopt);
    }
    pending.append("\n"sv);
    const auto line = pending.takeLine();
    ASSERT_TRUE(line);
    EXPECT_EQ(line->size(), count);
}

}  // namespace
}  // namespace corvane
