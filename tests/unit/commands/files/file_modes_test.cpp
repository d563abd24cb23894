#include <string>

#include <gtest/gtest.h>

#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

/// Each mode on a file that holds ten digits.
class FileModes : public FileTest {
 protected:
    std::uint64_t openAs(const std::string& mode) { return openFile(file_, mode); }

    void expectContent(const std::string& content) { EXPECT_EQ(fileContent(file_), content); }

    const std::string file_ = makeFile("file", "0123456789");
};

TEST_F(FileModes, UpdatingReadsAndWritesAnywhere) {
    const std::uint64_t handle = openAs("r+");
    EXPECT_EQ(readFile(handle, 3), readAnswer("012", false));
    EXPECT_EQ(seekFile(handle, 0, "cur"), seekAnswer(3));
    EXPECT_EQ(writeFile(handle, "ab"), writeAnswer(2));
    EXPECT_EQ(seekFile(handle, 0, "cur"), seekAnswer(5));
    EXPECT_EQ(readFile(handle, 2), readAnswer("56", false));
    EXPECT_EQ(seekFile(handle, -3, "cur"), seekAnswer(4));
    EXPECT_EQ(writeFile(handle, "X"), writeAnswer(1));
    EXPECT_EQ(flushFile(handle), success);
    expectContent("012aX56789");
    EXPECT_EQ(readFile(handle, 2), readAnswer("56", false));
    EXPECT_EQ(seekFile(handle, -1, "end"), seekAnswer(9));
    EXPECT_EQ(writeFile(handle, "end"), writeAnswer(3));
    EXPECT_EQ(seekFile(handle, 0, "set"), seekAnswer(0));
    EXPECT_EQ(readFile(handle, 100), readAnswer("012aX5678end", true));
    EXPECT_EQ(closeFile(handle), success);
    expectContent("012aX5678end");
}

TEST_F(FileModes, UpdatingANewFileStartsEmpty) {
    const std::uint64_t handle = openAs("w+");
    expectContent("");
    EXPECT_EQ(readFile(handle, 100), readAnswer("", true));
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5, true));
    EXPECT_EQ(seekFile(handle, 1, "set"), seekAnswer(1));
    EXPECT_EQ(readFile(handle, 2), readAnswer("el", false));
    EXPECT_EQ(seekFile(handle, 0, "set"), seekAnswer(0));
    EXPECT_EQ(writeFile(handle, "J"), writeAnswer(1));
    EXPECT_EQ(closeFile(handle), success);
    expectContent("Jello");
}

TEST_F(FileModes, WhatWasWrittenIsNotLostByAReadWithoutAFlush) {
    for (const char* mode : {"w", "a", "r+", "w+", "a+"}) {
        for (const std::uint64_t count : {0U, 1U, 4095U, 4096U, 200000U}) {
            makeFile("file", "0123456789");
            const std::uint64_t handle = openAs(mode);
            EXPECT_EQ(writeFile(handle, "written"), writeAnswer(7)) << mode;
            const std::string answer = readFile(handle, count);
            const bool mayRead = mode[1] == '+' || count == 0;
            EXPECT_EQ(answer == errorAnswer("fread error 9"), !mayRead) << mode << answer;
            EXPECT_EQ(closeFile(handle), success) << mode;
            const std::string content = mode[0] == 'a'   ? "0123456789written"
                                        : mode[0] == 'w' ? "written"
                                                         : "written789";
            EXPECT_EQ(fileContent(file_), content) << mode << " and " << count;
        }
    }
}

TEST_F(FileModes, ReadThatCannotWriteOutWhatIsPendingSaysSo) {
    const std::uint64_t handle = openFile("/dev/full", "r+");
    EXPECT_EQ(writeFile(handle, "written"), writeAnswer(7));
    EXPECT_EQ(readFile(handle, 100000), errorAnswer("fread error 28"));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileModes, AppendingWritesAtTheEndWhereverThePositionIs) {
    const std::uint64_t handle = openAs("a");
    EXPECT_EQ(seekFile(handle, 2, "set"), seekAnswer(2));
    EXPECT_EQ(writeFile(handle, "ab"), writeAnswer(2));
    EXPECT_EQ(flushFile(handle), success);
    expectContent("0123456789ab");
    EXPECT_EQ(readFile(handle, 1), errorAnswer("fread error 9"));
    EXPECT_EQ(seekFile(handle, 0, "set"), seekAnswer(0));
    EXPECT_EQ(writeFile(handle, "c"), writeAnswer(1));
    EXPECT_EQ(closeFile(handle), success);
    expectContent("0123456789abc");
}

TEST_F(FileModes, AppendingComesBehindWhatOthersHaveWritten) {
    const std::uint64_t first = openAs("a");
    const std::uint64_t second = openAs("a");
    EXPECT_EQ(writeFile(first, "first"), writeAnswer(5));
    EXPECT_EQ(writeFile(second, "second"), writeAnswer(6));
    EXPECT_EQ(flushFile(second), success);
    EXPECT_EQ(closeFile(first), success);
    EXPECT_EQ(closeFile(second), success);
    expectContent("0123456789secondfirst");
}

TEST_F(FileModes, AppendingWithReadingReadsAnywhereAndWritesAtTheEnd) {
    const std::uint64_t handle = openAs("a+");
    EXPECT_EQ(readFile(handle, 4), readAnswer("0123", false)) << "from the start";
    EXPECT_EQ(seekFile(handle, 2, "set"), seekAnswer(2));
    EXPECT_EQ(writeFile(handle, "ab"), writeAnswer(2));
    EXPECT_EQ(seekFile(handle, 1, "set"), seekAnswer(1));
    EXPECT_EQ(readFile(handle, 100), readAnswer("123456789ab", true));
    EXPECT_EQ(closeFile(handle), success);
    expectContent("0123456789ab");
}

TEST_F(FileModes, WritingBeyondTheEndLeavesZeroesBetween) {
    const std::uint64_t handle = openAs("r+");
    EXPECT_EQ(seekFile(handle, 3, "end"), seekAnswer(13));
    EXPECT_EQ(writeFile(handle, "x"), writeAnswer(1));
    EXPECT_EQ(closeFile(handle), success);
    expectContent(std::string("0123456789\0\0\0x", 14));
}

TEST_F(FileModes, ExclusiveModeWritesTheNewFile) {
    const std::uint64_t handle = openFile(path("other"), "w+x");
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    EXPECT_EQ(seekFile(handle, 0, "set"), seekAnswer(0));
    EXPECT_EQ(readFile(handle, 5), readAnswer("hello", false));
    EXPECT_EQ(closeFile(handle), success);
    EXPECT_EQ(fileContent(path("other")), "hello");
}

TEST_F(FileModes, LettersThatSayHowAndNotWhatChangeNothing) {
    for (const char* mode : {"rb", "re", "rm", "rc", "rbcme"}) {
        const std::uint64_t handle = openAs(mode);
        EXPECT_EQ(readFile(handle, 100), readAnswer("0123456789", true)) << mode;
        EXPECT_EQ(closeFile(handle), success);
    }
}

}  // namespace
}  // namespace corvane
