#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "tests/unit/commands/files/cookie_stream.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

constexpr char hello[] = "aGVsbG8=";

/// {"handle":HANDLE,"buf-b64":"TEXT",MORE}
std::string withBytes(std::uint64_t handle, const std::string& text, const std::string& more = "") {
    return withHandle(handle, R"("buf-b64":")" + text + "\"" + (more.empty() ? "" : ",") + more);
}

std::string tooMuch(const std::string& count, std::size_t available) {
    return "requested write of " + count + " bytes, but provided buffer is only " +
           std::to_string(available) + " bytes";
}

class FileWrite : public FileTest {
 protected:
    /// Closes the file, and then that is what it holds.
    void expectContent(const std::string& content) {
        EXPECT_EQ(closeFile(handle_), success);
        EXPECT_EQ(fileContent(path("file")), content);
    }

    /// The response to "hello" and a count as JSON text.
    [[nodiscard]] std::string writeCount(const std::string& count) const {
        return answerTo(fileWrite, withBytes(handle_, hello, R"("count":)" + count));
    }

    const std::uint64_t handle_ = openFile(path("file"), "w");
};

TEST_F(FileWrite, BytesMustBeAString) {
    for (const char* bytes : {"null", "5", "true", R"(["aGVsbG8="])", "{}"}) {
        const std::string member = std::string(R"("buf-b64":)") + bytes;
        expectRefusal(fileWrite, withHandle(handle_, member), "buf-b64 is not a string");
        expectRefusal(fileWrite, withHandle(handle_, member + R"(,"count":null)"),
                      "buf-b64 is not a string");
    }
    expectRefusal(fileWrite, withHandle(handle_), "buf-b64 is not a string");
    expectRefusal(fileWrite, withHandle(handle_, R"("count":0)"), "buf-b64 is not a string");
    expectContent("");
}

TEST_F(FileWrite, WhatIsNotBase64IsRefusedQuietly) {
    for (const char* text :
         {"a", "ab", "aGVsbG8",
          "aGVsbG8 =", " aGVsbG8=", "aGVsbG8= ", "aGVs bG8=", "aGVs\\nbG8=", "aGVsbG8=\\n",
          "aGVs\\r\\nbG8=", "aGVsbG8=\\u0000", "aGV!bG8=", "aGVs-_8=", "aG=sbG8=", "=",
          "====", "aGVsbG8=aGVsbG8=", "aGVsbG9=", "\\u00e4aGVsbG8="}) {
        expectQuietRefusal(fileWrite, withBytes(handle_, text), "unable to decode buf-b64");
    }
    expectContent("");
}

TEST_F(FileWrite, BytesAreDecodedBeforeTheCountIsLookedAt) {
    for (const char* count : {"null", R"("5")", "1000", "0"}) {
        expectQuietRefusal(fileWrite,
                           withBytes(handle_, "aGVsbG8", std::string(R"("count":)") + count),
                           "unable to decode buf-b64");
    }
    expectContent("");
}

TEST_F(FileWrite, CountThatIsThereMustBeANumber) {
    for (const char* count : {"null", R"("5")", "[5]", "{}"}) {
        expectRefusal(fileWrite, withBytes(handle_, hello, std::string(R"("count":)") + count),
                      "count is not a number");
    }
    expectContent("");
}

TEST_F(FileWrite, AllIsWrittenByDefault) {
    std::string answer;
    EXPECT_EQ(writtenBy([&] { answer = answerTo(fileWrite, withBytes(handle_, hello)); }), "");
    EXPECT_EQ(answer, R"({"return":{"count":5,"eof":false}})");
    expectContent("hello");
}

TEST_F(FileWrite, CountIsHowManyOfTheBytesAreWritten) {
    EXPECT_EQ(writeCount("3"), writeAnswer(3));
    EXPECT_EQ(writeCount("5"), writeAnswer(5));
    EXPECT_EQ(writeCount("0"), writeAnswer(0));
    EXPECT_EQ(writeCount("true"), writeAnswer(1));
    EXPECT_EQ(writeCount("false"), writeAnswer(0));
    EXPECT_EQ(writeCount("2.9"), writeAnswer(2));
    EXPECT_EQ(writeCount("18446744073709551620"), writeAnswer(4)) << "2^64 + 4";
    expectContent(
        "hel"
        "hello"
        "h"
        "he"
        "hell");
}

TEST_F(FileWrite, MoreThanThereIsIsRefusedQuietly) {
    const auto refuse = [&](const std::string& text, const std::string& count,
                            const std::string& description) {
        expectQuietRefusal(fileWrite, withBytes(handle_, text, R"("count":)" + count), description);
    };
    refuse(hello, "6", tooMuch("6", 5));
    refuse(hello, "6.99", tooMuch("6", 5));
    refuse(hello, "4294967296", tooMuch("4294967296", 5));
    refuse(hello, "-1", tooMuch("18446744073709551615", 5));
    refuse(hello, "18446744073709551615", tooMuch("18446744073709551615", 5));
    refuse("", "1", tooMuch("1", 0));
    refuse("", "true", tooMuch("1", 0));
    expectContent("");
}

TEST_F(FileWrite, NothingMayBeWritten) {
    EXPECT_EQ(answerTo(fileWrite, withBytes(handle_, "")), writeAnswer(0));
    EXPECT_EQ(answerTo(fileWrite, withBytes(handle_, "", R"("count":0)")), writeAnswer(0));
    expectContent("");
}

TEST_F(FileWrite, BytesOfAllValuesArriveInAnyNumber) {
    std::string all;
    for (const std::size_t size : {1U, 2U, 3U, 255U, 4095U, 4096U, 4097U, 98305U, 1000000U}) {
        const std::string bytes = mixedBytes(size, static_cast<unsigned>(size));
        EXPECT_EQ(writeFile(handle_, bytes), writeAnswer(size));
        all += bytes;
    }
    EXPECT_EQ(closeFile(handle_), success);
    EXPECT_TRUE(fileContent(path("file")) == all);
}

TEST_F(FileWrite, BytesStayInTheBufferUntilFlushedSoughtOrClosed) {
    EXPECT_EQ(writeFile(handle_, "one"), writeAnswer(3));
    EXPECT_EQ(fileContent(path("file")), "");
    EXPECT_EQ(flushFile(handle_), success);
    EXPECT_EQ(fileContent(path("file")), "one");
    EXPECT_EQ(writeFile(handle_, "two"), writeAnswer(3));
    EXPECT_EQ(fileContent(path("file")), "one");
    EXPECT_EQ(seekFile(handle_, 0, "set"), seekAnswer(0));
    EXPECT_EQ(fileContent(path("file")), "onetwo");
    EXPECT_EQ(writeFile(handle_, "ON"), writeAnswer(2));
    EXPECT_EQ(fileContent(path("file")), "onetwo");
    expectContent("ONetwo");
}

TEST_F(FileWrite, StreamNotOpenForWritingFails) {
    const std::uint64_t reader = openFile(path("file"));
    expectQuietRefusal(fileWrite, withBytes(reader, hello), "fwrite error 9");
    expectQuietRefusal(fileWrite, withBytes(reader, hello), "fwrite error 9");
    EXPECT_EQ(writeFile(reader, ""), writeAnswer(0)) << "nothing was missing";
    EXPECT_EQ(closeFile(reader), success);
    expectContent("");
}

TEST_F(FileWrite, WhatTheDeviceDoesNotTakeIsToldAtOnceWhenTheBufferIsTooSmall) {
    const std::uint64_t full = openFile("/dev/full", "w");
    const std::string bytes(1000000, 'x');
    expectQuietRefusal(fileWrite, withBytes(full, base64ByGroups(bytes)), "fwrite error 28");
    expectQuietRefusal(fileWrite, withBytes(full, base64ByGroups(bytes)), "fwrite error 28");
    const std::string answer = closeFile(full);
    EXPECT_TRUE(answer == success || answer == errorAnswer("fclose error 28")) << answer;
    expectContent("");
}

TEST_F(FileWrite, WhatTheDeviceDoesNotTakeIsToldLaterWhenItWentIntoTheBuffer) {
    const std::uint64_t full = openFile("/dev/full", "w");
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    expectQuietRefusal(fileFlush, withHandle(full), "fflush error 28");
    EXPECT_EQ(fileHandleTable.size(), 2U) << "it is still open";
    EXPECT_EQ(writeFile(full, "hello"), writeAnswer(5));
    EXPECT_EQ(closeFile(full), errorAnswer("fclose error 28"));
    EXPECT_EQ(fileHandleTable.size(), 1U);
    expectContent("");
}

TEST_F(FileWrite, ErrorNumberIsThatOfTheWriteAndNotAnOlderOne) {
    CookieStream cookie;
    cookie.writeError = ENXIO;
    const std::uint64_t handle = cookie.open("w");
    EXPECT_EQ(writeFile(handle_, std::string(100000, 'x')), writeAnswer(100000));
    EXPECT_EQ(writeFile(handle, std::string(100000, 'x')), errorAnswer("fwrite error 6"));
    cookie.writeError = EDQUOT;
    EXPECT_EQ(writeFile(handle, std::string(100000, 'x')), errorAnswer("fwrite error 122"));
    cookie.writeError = 0;
    cookie.refusesWrites = true;
    EXPECT_EQ(writeFile(handle, std::string(100000, 'x')), errorAnswer("fwrite error 0"));
    cookie.refusesWrites = false;
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5)) << "an old error is no hindrance";
    EXPECT_EQ(closeFile(handle), success);
    EXPECT_EQ(closeFile(handle_), success);
}

TEST_F(FileWrite, EndThatWasMetIsTold) {
    makeFile("other", "abc");
    const std::uint64_t handle = openFile(path("other"), "r+");
    EXPECT_EQ(readFile(handle, 10), readAnswer("abc", true));
    // At the end one may go on to write without a seek. The indicator stays until there is one.
    EXPECT_EQ(writeFile(handle, "def"), writeAnswer(3, true));
    EXPECT_EQ(seekFile(handle, 0, "cur"), seekAnswer(6));
    EXPECT_EQ(writeFile(handle, "g"), writeAnswer(1, false));
    EXPECT_EQ(closeFile(handle), success);
    EXPECT_EQ(fileContent(path("other")), "abcdefg");
    expectContent("");
}

TEST_F(FileWrite, FifoTakesWhatItsReaderReads) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    const DescriptorGuard reader(::open(path("fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::uint64_t fifo = openFile(path("fifo"), "w");
    EXPECT_EQ(writeFile(fifo, "hello"), writeAnswer(5));
    EXPECT_EQ(flushFile(fifo), success);
    std::array<char, 10> bytes{};
    EXPECT_EQ(::read(reader.borrow(), bytes.data(), bytes.size()), 5);
    EXPECT_EQ(std::string(bytes.data()), "hello");
    EXPECT_EQ(closeFile(fifo), success);
    expectContent("");
}

TEST_F(FileWrite, FifoWithoutAReaderFailsAndEndsNothing) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    DescriptorGuard reader(::open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const std::uint64_t fifo = openFile(path("fifo"), "w");
    reader.closeNow();
    EXPECT_EQ(writeFile(fifo, "hello"), writeAnswer(5));
    EXPECT_EQ(flushFile(fifo), errorAnswer("fflush error 32"));
    EXPECT_EQ(writeFile(fifo, "hello"), writeAnswer(5));
    EXPECT_EQ(closeFile(fifo), errorAnswer("fclose error 32"));
    expectContent("");
}

}  // namespace
}  // namespace corvane
