#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/unit/commands/files/cookie_stream.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

/// {"handle":HANDLE,"offset":OFFSET,"whence":WHENCE}
std::string withPlace(std::uint64_t handle, const std::string& offset, const std::string& whence) {
    return withHandle(handle, R"("offset":)" + offset + R"(,"whence":)" + whence);
}

/// On a file of ten digits.
class FileSeek : public FileTest {
 protected:
    void TearDown() override {
        EXPECT_EQ(closeFile(handle_), success);
        FileTest::TearDown();
    }

    /// The response to an offset and an origin as JSON texts.
    std::string seek(const std::string& offset, const std::string& whence) const {
        return answerTo(fileSeek, withPlace(handle_, offset, whence));
    }

    const std::uint64_t handle_ = openFile(makeFile("file", "0123456789"));
};

TEST_F(FileSeek, OffsetMustBeANumber) {
    expectRefusal(fileSeek, withHandle(handle_), "offset is not a number");
    expectRefusal(fileSeek, withHandle(handle_, R"("whence":"set")"), "offset is not a number");
    for (const char* offset : {"null", R"("5")", "[5]", "{}"}) {
        expectRefusal(fileSeek, withPlace(handle_, offset, R"("set")"), "offset is not a number");
        expectRefusal(fileSeek, withPlace(handle_, offset, R"("SET")"), "offset is not a number");
        expectRefusal(fileSeek, withPlace(handle_, offset, "null"), "offset is not a number");
    }
}

TEST_F(FileSeek, WhenceMustBeANumberOrAString) {
    expectRefusal(fileSeek, withHandle(handle_, R"("offset":0)"),
                  "whence is not a number or string");
    for (const char* whence : {"null", "[0]", R"(["set"])", "{}"}) {
        expectRefusal(fileSeek, withPlace(handle_, "5", whence),
                      "whence is not a number or string");
    }
    EXPECT_EQ(readFile(handle_, 1), readAnswer("0", false)) << "nothing has moved";
}

TEST_F(FileSeek, OtherNamesOfOriginsAreRefusedQuietly) {
    for (const char* whence : {"SET", "Set", "CUR", "END", "", " set", "set ", "seek_set", "0", "1",
                               "start", "set\\u0000", "current"}) {
        expectQuietRefusal(fileSeek, withPlace(handle_, "5", std::string("\"") + whence + "\""),
                           "unknown whence value");
    }
    EXPECT_EQ(readFile(handle_, 1), readAnswer("0", false)) << "nothing has moved";
}

TEST_F(FileSeek, OriginsByName) {
    EXPECT_EQ(seek("4", R"("set")"), R"({"return":{"eof":false,"position":4}})");
    EXPECT_EQ(seek("3", R"("cur")"), seekAnswer(7));
    EXPECT_EQ(seek("-2", R"("cur")"), seekAnswer(5));
    EXPECT_EQ(readFile(handle_, 2), readAnswer("56", false));
    EXPECT_EQ(seek("0", R"("cur")"), seekAnswer(7));
    EXPECT_EQ(seek("0", R"("end")"), seekAnswer(10));
    EXPECT_EQ(seek("-1", R"("end")"), seekAnswer(9));
    EXPECT_EQ(readFile(handle_, 5), readAnswer("9", true));
    EXPECT_EQ(seek("90", R"("end")"), seekAnswer(100)) << "beyond the end";
    EXPECT_EQ(writtenBy([&] { seek("0", R"("set")"); }), "");
}

TEST_F(FileSeek, OriginsByNumber) {
    EXPECT_EQ(seek("4", "0"), seekAnswer(4));
    EXPECT_EQ(seek("3", "1"), seekAnswer(7));
    EXPECT_EQ(seek("0", "2"), seekAnswer(10));
    EXPECT_EQ(seek("4", "false"), seekAnswer(4));
    EXPECT_EQ(seek("2", "true"), seekAnswer(6));
    EXPECT_EQ(seek("2", "1.9"), seekAnswer(8));
    EXPECT_EQ(seek("1", "4294967297"), seekAnswer(9)) << "2^32 + 1";
    EXPECT_EQ(seek("3", "-4294967296"), seekAnswer(3)) << "-2^32";
    EXPECT_EQ(seek("-3", "18446744073709551618"), seekAnswer(7)) << "2^64 + 2";
}

TEST_F(FileSeek, OriginsThatThereAreNotAreRefusedByTheCLibrary) {
    EXPECT_EQ(seek("3", "0"), seekAnswer(3));
    for (const char* whence : {"7", "-1", "2147483648", "5", "4294967303"}) {
        expectQuietRefusal(fileSeek, withPlace(handle_, "0", whence), "fseek error 22");
    }
    EXPECT_EQ(readFile(handle_, 1), readAnswer("3", false)) << "nothing has moved";
}

TEST_F(FileSeek, BeforeTheStartIsRefusedByTheCLibrary) {
    expectQuietRefusal(fileSeek, withPlace(handle_, "-1", R"("set")"), "fseek error 22");
    expectQuietRefusal(fileSeek, withPlace(handle_, "-11", R"("end")"), "fseek error 22");
    EXPECT_EQ(readFile(handle_, 3), readAnswer("012", false));
    expectQuietRefusal(fileSeek, withPlace(handle_, "-4", R"("cur")"), "fseek error 22");
    EXPECT_EQ(seek("-3", R"("cur")"), seekAnswer(0));
}

TEST_F(FileSeek, OffsetIsReadAs64Bits) {
    EXPECT_EQ(seek("true", R"("set")"), seekAnswer(1));
    EXPECT_EQ(seek("false", R"("set")"), seekAnswer(0));
    EXPECT_EQ(seek("2.9", R"("set")"), seekAnswer(2));
    EXPECT_EQ(seek("-1.9", R"("cur")"), seekAnswer(1));
    EXPECT_EQ(seek("18446744073709551615", R"("end")"), seekAnswer(9)) << "-1";
    EXPECT_EQ(seek("18446744073709551620", R"("set")"), seekAnswer(4)) << "2^64 + 4";
    EXPECT_EQ(seek("9223372036854775808", R"("set")"), errorAnswer("fseek error 22")) << "-2^63";
}

TEST_F(FileSeek, EndThatWasMetIsForgotten) {
    EXPECT_EQ(readFile(handle_, 20), readAnswer("0123456789", true));
    EXPECT_EQ(readFile(handle_, 0), readAnswer("", true));
    EXPECT_EQ(seek("0", R"("end")"), seekAnswer(10)) << "\"eof\" is false";
    EXPECT_EQ(readFile(handle_, 0), readAnswer("", false));
    EXPECT_EQ(readFile(handle_, 1), readAnswer("", true));
    expectQuietRefusal(fileSeek, withPlace(handle_, "0", "7"), "fseek error 22");
    EXPECT_EQ(readFile(handle_, 0), readAnswer("", true)) << "a failed seek leaves it";
}

TEST_F(FileSeek, PositionThatCannotBeToldIsTheLargestNumber) {
    CookieStream cookie;
    const std::uint64_t handle = cookie.open("r");
    EXPECT_EQ(seekFile(handle, 5, "set"), seekAnswer(5));
    cookie.positionError = EIO;
    EXPECT_EQ(seekFile(handle, 6, "set"), R"({"return":{"eof":false,"position":)"
                                          "18446744073709551615}}");
    EXPECT_EQ(cookie.position, 6);
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileSeek, WhatHasNoPositionIsRefusedByTheSystem) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    const std::uint64_t fifo = openFile(path("fifo"), "r+");
    expectQuietRefusal(fileSeek, withPlace(fifo, "0", R"("cur")"), "fseek error 29");
    EXPECT_EQ(closeFile(fifo), success);
}

TEST_F(FileSeek, WhatCannotBeWrittenFirstIsAFailureOfTheSeek) {
    const std::uint64_t full = openFile("/dev/full", "w");
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    expectQuietRefusal(fileSeek, withPlace(full, "0", R"("set")"), "fseek error 28");
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    EXPECT_EQ(closeFile(full), errorAnswer("fclose error 28"));
}

class FileFlush : public FileTest {};

TEST_F(FileFlush, HandsWhatIsBufferedToTheSystem) {
    const std::uint64_t handle = openFile(path("file"), "w");
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    EXPECT_EQ(fileContent(path("file")), "");
    std::string answer;
    EXPECT_EQ(
        writtenBy([&] { answer = answerTo(fileFlush, withHandle(handle, R"("other":null)")); }),
        "");
    EXPECT_EQ(answer, success);
    EXPECT_EQ(fileContent(path("file")), "hello");
    EXPECT_EQ(flushFile(handle), success) << "nothing is left to do";
    EXPECT_EQ(closeFile(handle), success);
    EXPECT_EQ(fileContent(path("file")), "hello");
}

TEST_F(FileFlush, OtherStreamsKeepTheirs) {
    const std::uint64_t first = openFile(path("first"), "w");
    const std::uint64_t second = openFile(path("second"), "w");
    EXPECT_EQ(writeFile(first, "1"), writeAnswer(1));
    EXPECT_EQ(writeFile(second, "2"), writeAnswer(1));
    EXPECT_EQ(flushFile(second), success);
    EXPECT_EQ(fileContent(path("first")), "");
    EXPECT_EQ(fileContent(path("second")), "2");
    EXPECT_EQ(closeFile(first), success);
    EXPECT_EQ(closeFile(second), success);
}

TEST_F(FileFlush, StreamThatIsReadKeepsItsPlace) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    EXPECT_EQ(flushFile(handle), success);
    EXPECT_EQ(readFile(handle, 3), readAnswer("012", false));
    EXPECT_EQ(flushFile(handle), success);
    EXPECT_EQ(readFile(handle, 3), readAnswer("345", false));
    EXPECT_EQ(readFile(handle, 9), readAnswer("6789", true));
    EXPECT_EQ(flushFile(handle), success);
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileFlush, FailureIsToldEachTimeAndThenTheStreamGoesOn) {
    CookieStream cookie;
    const std::uint64_t handle = cookie.open("w");
    cookie.writeError = EDQUOT;
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    expectQuietRefusal(fileFlush, withHandle(handle), "fflush error 122");
    cookie.writeError = EIO;
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    expectQuietRefusal(fileFlush, withHandle(handle), "fflush error 5");
    cookie.writeError = 0;
    EXPECT_EQ(flushFile(handle), success);
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileFlush, FullDeviceFailsAndClosingFailsToo) {
    const std::uint64_t full = openFile("/dev/full", "w");
    EXPECT_EQ(flushFile(full), success);
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    expectQuietRefusal(fileFlush, withHandle(full), "fflush error 28");
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    EXPECT_EQ(closeFile(full), errorAnswer("fclose error 28"));
}

}  // namespace
}  // namespace corvane
