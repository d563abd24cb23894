#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdlib.h>
#include <string>

#include <gtest/gtest.h>

#include "commands/files/file_handle_table.h"
#include "core/descriptor_guard.h"
#include "tests/unit/commands/files/cookie_stream.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

/// The response without a count.
std::string readByDefault(std::uint64_t handle) {
    return answerTo(fileRead, withHandle(handle));
}

/// The response to a count as JSON text.
std::string readCount(std::uint64_t handle, const std::string& count) {
    return answerTo(fileRead, withHandle(handle, R"("count":)" + count));
}

class FileRead : public FileTest {};

TEST_F(FileRead, CountThatIsThereMustBeANumber) {
    const std::uint64_t handle = openFile(makeFile("file", "content"));
    for (const char* count : {"null", R"("5")", "[5]", "{}"}) {
        expectRefusal(fileRead, withHandle(handle, std::string(R"("count":)") + count),
                      "count is not a number");
    }
    EXPECT_EQ(readByDefault(handle), readAnswer("content", true)) << "nothing has been read";
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, SmallFileIsReadToItsEndByDefault) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    const std::string written = writtenBy([&] {
        EXPECT_EQ(readByDefault(handle),
                  R"({"return":{"count":10,"eof":true,"buf-b64":"MDEyMzQ1Njc4OQ=="}})");
        EXPECT_EQ(readByDefault(handle), R"({"return":{"count":0,"eof":true,"buf-b64":""}})");
    });
    EXPECT_EQ(written, "");
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, CountIs4096ByDefault) {
    const std::string content = mixedBytes(4096 + 4096 + 1);
    const std::uint64_t handle = openFile(makeFile("file", content));
    EXPECT_EQ(readByDefault(handle), readAnswer(content.substr(0, 4096), false));
    EXPECT_EQ(readByDefault(handle), readAnswer(content.substr(4096, 4096), false));
    EXPECT_EQ(readByDefault(handle), readAnswer(content.substr(8192), true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, ExactlyWhatIsLeftDoesNotMeetTheEnd) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    EXPECT_EQ(readFile(handle, 4), readAnswer("0123", false));
    EXPECT_EQ(readFile(handle, 6), readAnswer("456789", false));
    EXPECT_EQ(readFile(handle, 6), readAnswer("", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, OneMoreThanIsLeftMeetsTheEnd) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    EXPECT_EQ(readFile(handle, 11), readAnswer("0123456789", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, NothingIsReadWithACountOfZeroAndTheEndIsToldAsItIsKnown) {
    const std::uint64_t handle = openFile(makeFile("file", "ab"));
    EXPECT_EQ(readFile(handle, 0), readAnswer("", false));
    EXPECT_EQ(readFile(handle, 2), readAnswer("ab", false));
    EXPECT_EQ(readFile(handle, 0), readAnswer("", false));
    EXPECT_EQ(readFile(handle, 1), readAnswer("", true));
    EXPECT_EQ(readFile(handle, 0), readAnswer("", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, CountIsReadAsUnsigned64Bits) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    EXPECT_EQ(readCount(handle, "true"), readAnswer("0", false));
    EXPECT_EQ(readCount(handle, "false"), readAnswer("", false));
    EXPECT_EQ(readCount(handle, "2.9"), readAnswer("12", false));
    EXPECT_EQ(readCount(handle, "0.9"), readAnswer("", false));
    EXPECT_EQ(readCount(handle, "18446744073709551617"), readAnswer("3", false)) << "2^64 + 1";
    EXPECT_EQ(readCount(handle, "4294967296"), readAnswer("456789", true)) << "2^32";
    for (const char* all : {"-1", "18446744073709551615", "9223372036854775808", "1e15"}) {
        EXPECT_EQ(seekFile(handle, 8, "set"), seekAnswer(8));
        EXPECT_EQ(readCount(handle, all), readAnswer("89", true)) << all;
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, StreamNotOpenForReadingFails) {
    for (const char* mode : {"w", "a"}) {
        const std::uint64_t handle = openFile(path("file"), mode);
        expectQuietRefusal(fileRead, withHandle(handle), "fread error 9");
        expectQuietRefusal(fileRead, withHandle(handle, R"("count":1)"), "fread error 9");
        EXPECT_EQ(readFile(handle, 0), readAnswer("", false)) << "nothing was missing";
        EXPECT_EQ(closeFile(handle), success);
    }
}

TEST_F(FileRead, DirectoryFailsEachTime) {
    const std::uint64_t handle = openFile(path(""));
    expectQuietRefusal(fileRead, withHandle(handle), "fread error 21");
    expectQuietRefusal(fileRead, withHandle(handle), "fread error 21");
    expectQuietRefusal(fileRead, withHandle(handle, R"("count":18446744073709551615)"),
                       "fread error 21");
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, ErrorStaysAndIsToldByEveryShortReadWithoutTheNumberOfAnOlderOne) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"));
    EXPECT_EQ(writeFile(handle, "x"), errorAnswer("fwrite error 9")) << "sets the indicator";
    EXPECT_EQ(readFile(handle, 4), readAnswer("0123", false)) << "not short";
    EXPECT_EQ(readFile(handle, 100), errorAnswer("fread error 0"));
    EXPECT_EQ(readFile(handle, 100), errorAnswer("fread error 0"));
    EXPECT_EQ(seekFile(handle, 5, "set"), seekAnswer(5));
    EXPECT_EQ(readFile(handle, 5), readAnswer("56789", false));
    EXPECT_EQ(seekFile(handle, -1, "set"), errorAnswer("fseek error 22")) << "leaves an errno";
    EXPECT_EQ(readFile(handle, 1), errorAnswer("fread error 0"));
    EXPECT_EQ(readFile(handle, 0), readAnswer("", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, FailureInTheMiddleIsToldAndWhatCameBeforeIsNot) {
    CookieStream cookie;
    cookie.readable = 200000;
    cookie.readError = EIO;
    const std::uint64_t handle = cookie.open("r");
    EXPECT_EQ(readFile(handle, 1000), readAnswer(std::string(1000, 'c'), false));
    EXPECT_EQ(readFile(handle, 1000000), errorAnswer("fread error 5"));
    cookie.readable = 50;
    EXPECT_EQ(readFile(handle, 20), readAnswer(std::string(20, 'c'), false)) << "not short";
    EXPECT_EQ(readFile(handle, 100), errorAnswer("fread error 5"));
    cookie.readError = 0;
    EXPECT_EQ(readFile(handle, 100), errorAnswer("fread error 0"))
        << "the end, but the error stays";
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, EndIsTheEndEvenWhereMoreCouldBeReadBehindIt) {
    const DescriptorGuard terminal(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(::grantpt(terminal.borrow()), 0);
    ASSERT_EQ(::unlockpt(terminal.borrow()), 0);
    const std::uint64_t handle = openFile(::ptsname(terminal.borrow()));
    // The second end-of-file character of a pair is the end, and there is more behind it.
    constexpr std::string_view typed = "abc\x04\x04more\n\x04";
    ASSERT_EQ(::write(terminal.borrow(), typed.data(), typed.size()), 11);
    EXPECT_EQ(readFile(handle, 200000), readAnswer("abc", true));
    EXPECT_EQ(readFile(handle, 200000), readAnswer("more\n", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, DeviceWithoutEndGivesWhatIsAskedFor) {
    const std::uint64_t handle = openFile("/dev/zero");
    EXPECT_EQ(readFile(handle, 300000), readAnswer(std::string(300000, '\0'), false));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, FileWithoutASizeIsReadToItsEnd) {
    const std::string content = fileContent("/proc/self/maps");
    ASSERT_GT(content.size(), 0U);
    const std::uint64_t handle = openFile("/proc/self/maps");
    EXPECT_TRUE(readFile(handle, 1U << 30U).find(R"(,"eof":true,)") != std::string::npos);
    EXPECT_EQ(closeFile(handle), success);
    const std::uint64_t version = openFile("/proc/version");
    EXPECT_EQ(readFile(version, 1U << 30U), readAnswer(fileContent("/proc/version"), true));
    EXPECT_EQ(closeFile(version), success);
}

TEST_F(FileRead, FifoGivesWhatIsAskedForAndTheRestWhenItsWriterHasGone) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    DescriptorGuard writer(::open(path("fifo").c_str(), O_RDWR | O_CLOEXEC));
    const std::uint64_t handle = openFile(path("fifo"));
    ASSERT_EQ(::write(writer.borrow(), "0123456789", 10), 10);
    EXPECT_EQ(readFile(handle, 4), readAnswer("0123", false));
    EXPECT_EQ(readFile(handle, 6), readAnswer("456789", false));
    ASSERT_EQ(::write(writer.borrow(), "ab", 2), 2);
    writer.closeNow();
    EXPECT_EQ(readFile(handle, 6), readAnswer("ab", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileRead, FileThatHasGrownIsReadOnAfterASeek) {
    const std::string file = makeFile("file", "one");
    const std::uint64_t reader = openFile(file);
    EXPECT_EQ(readFile(reader, 10), readAnswer("one", true));
    const std::uint64_t writer = openFile(file, "a");
    EXPECT_EQ(writeFile(writer, "two"), writeAnswer(3));
    EXPECT_EQ(closeFile(writer), success);
    EXPECT_EQ(readFile(reader, 10), readAnswer("", true)) << "the end stays where it was met";
    EXPECT_EQ(seekFile(reader, 0, "cur"), seekAnswer(3));
    EXPECT_EQ(readFile(reader, 10), readAnswer("two", true));
    EXPECT_EQ(closeFile(reader), success);
}

TEST_F(FileRead, FileThatShrinksWhileOpenEndsEarlier) {
    const std::string file = makeFile("file", std::string(300000, 'x'));
    const std::uint64_t handle = openFile(file);
    EXPECT_EQ(readFile(handle, 100000), readAnswer(std::string(100000, 'x'), false));
    ASSERT_EQ(::truncate(file.c_str(), 50000), 0);
    const std::string rest = readFile(handle, 300000);
    EXPECT_TRUE(rest.find(R"(,"eof":true,)") != std::string::npos) << rest.substr(0, 100);
    EXPECT_EQ(closeFile(handle), success);
}

}  // namespace
}  // namespace corvane
