#include <fcntl.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "commands/files/file_handle_table.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

/// {"path":PATH,MORE}
std::string withPath(const std::string& path, const std::string& more = "") {
    return R"({"path":")" + path + "\"" + (more.empty() ? "" : ",") + more + "}";
}

class FileOpen : public FileTest {};

TEST_F(FileOpen, WithoutArgumentsIsRefusedQuietly) {
    expectQuietRefusal(fileOpen, "null", "missing arguments");
}

TEST_F(FileOpen, PathMustBeAString) {
    for (const char* arguments : {"{}", R"({"path":null})", R"({"path":5})", R"({"path":true})",
                                  R"({"path":["/dev/null"]})", R"({"path":{}})",
                                  R"({"Path":"/dev/null"})", R"({"mode":"r"})", R"({"mode":5})"}) {
        expectRefusal(fileOpen, arguments, "path is not a string");
    }
}

TEST_F(FileOpen, ModeThatIsThereMustBeAString) {
    for (const char* mode : {"null", "5", "true", R"(["r"])", "{}"}) {
        const std::string more = std::string(R"("mode":)") + mode;
        expectRefusal(fileOpen, withPath("/dev/null", more), "mode is not a string");
        expectRefusal(fileOpen, withPath(path("missing"), more), "mode is not a string");
    }
    EXPECT_TRUE(platform_.fileStreams.opened.empty());
}

TEST_F(FileOpen, FileThatIsNotThereIsNotReadButIsMadeForWriting) {
    expectQuietRefusal(fileOpen, withPath(path("new")), "invalid path or mode");
    EXPECT_FALSE(std::filesystem::exists(path("new")));
    const std::uint64_t handle = openFile(path("new"), "w");
    EXPECT_TRUE(std::filesystem::exists(path("new")));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileOpen, WhatTheSystemDoesNotOpenIsRefusedQuietly) {
    const std::string file = makeFile("file", "content");
    for (const std::string& name :
         {std::string(), path(""), path("none/at/all"), file + "/", std::string(5000, 'x')}) {
        expectQuietRefusal(fileOpen, withPath(name, R"("mode":"w")"), "invalid path or mode");
    }
    for (const char* mode : {"", "q", "R", "+r", " r", "0"}) {
        expectQuietRefusal(fileOpen, withPath(file, std::string(R"("mode":")") + mode + "\""),
                           "invalid path or mode");
    }
    EXPECT_EQ(fileContent(file), "content");
}

TEST_F(FileOpen, PathAndModeArePassedAsTheyAre) {
    using Call = std::pair<std::string, std::string>;
    const std::string name =
        makeFile("ein Blatt \xE2\x80\x93 \xD0\xBB\xD0\xB8\xD1\x81\xD1\x82", "");
    std::vector<Call> calls;
    for (const char* mode : {"r", "w", "a", "r+", "w+", "a+", "rb", "wb", "ab", "r+b", "rb+", "w+b",
                             "wb+", "a+b", "ab+", "re", "rm", "rc", "r+bcme"}) {
        EXPECT_EQ(closeFile(openFile(name, mode)), success) << mode;
        calls.emplace_back(name, mode);
    }
    EXPECT_EQ(platform_.fileStreams.opened, calls);
}

TEST_F(FileOpen, ModeIsReadingUnlessGiven) {
    const std::string file = makeFile("file", "content");
    const std::string answer = answerTo(fileOpen, withPath(file, R"("Mode":"w","other":null)"));
    const std::uint64_t handle = fileHandle(fileHandleTable.begin()->first);
    EXPECT_EQ(answer, R"({"return":)" + std::to_string(handle) + "}");
    EXPECT_EQ(platform_.fileStreams.opened.back(), std::pair(file, std::string("r")));
    EXPECT_EQ(readFile(handle, 100), readAnswer("content", true));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileOpen, HandleIsTheStreamsAddress) {
    const std::uint64_t handle = openFile(makeFile("file", "ab"));
    ASSERT_EQ(fileHandleTable.size(), 1U);
    const auto [key, value] = *fileHandleTable.begin();
    EXPECT_EQ(handle, reinterpret_cast<std::uintptr_t>(key));
    EXPECT_EQ(key, value);
    EXPECT_EQ(std::fgetc(value), 'a');
    EXPECT_EQ(readFile(handle, 1), readAnswer("b", false));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileOpen, OneFileOpenedTwiceHasTwoHandlesWithPositionsOfTheirOwn) {
    const std::string file = makeFile("file", "abc");
    const std::uint64_t first = openFile(file);
    const std::uint64_t second = openFile(file);
    EXPECT_NE(first, second);
    EXPECT_EQ(readFile(first, 2), readAnswer("ab", false));
    EXPECT_EQ(readFile(second, 1), readAnswer("a", false));
    EXPECT_EQ(closeFile(first), success);
    EXPECT_EQ(readFile(second, 1), readAnswer("b", false));
    EXPECT_EQ(closeFile(second), success);
}

TEST_F(FileOpen, ModesDecideWhatBecomesOfTheContent) {
    const std::string file = makeFile("file", "content");
    EXPECT_EQ(closeFile(openFile(file, "r+")), success);
    EXPECT_EQ(closeFile(openFile(file, "a")), success);
    EXPECT_EQ(fileContent(file), "content");
    EXPECT_EQ(closeFile(openFile(file, "w")), success);
    EXPECT_EQ(fileContent(file), "");
}

TEST_F(FileOpen, ExclusiveModeMakesANewFileOnly) {
    const std::string arguments = withPath(path("file"), R"("mode":"wx")");
    EXPECT_EQ(closeFile(openFile(path("file"), "wx")), success);
    expectQuietRefusal(fileOpen, arguments, "invalid path or mode");
    std::filesystem::remove(path("file"));
    EXPECT_EQ(closeFile(openFile(path("file"), "w+x")), success);
}

TEST_F(FileOpen, DirectoryOpensForReadingOnly) {
    const std::uint64_t handle = openFile(path(""));
    for (const char* mode : {"w", "a", "r+"}) {
        expectQuietRefusal(fileOpen, withPath(path(""), std::string(R"("mode":")") + mode + "\""),
                           "invalid path or mode");
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileOpen, RefusalLeavesNoEntry) {
    const std::size_t before = countDescriptors();
    expectQuietRefusal(fileOpen, withPath(path("missing")), "invalid path or mode");
    expectRefusal(fileOpen, withPath("/dev/null", R"("mode":null)"), "mode is not a string");
    EXPECT_TRUE(fileHandleTable.empty());
    EXPECT_EQ(countDescriptors(), before);
}

class FileClose : public FileTest {};

TEST_F(FileClose, ClosesTheStreamAndForgetsTheHandle) {
    const std::size_t before = countDescriptors();
    const std::uint64_t handle = openFile(path("file"), "w");
    EXPECT_EQ(countDescriptors(), before + 1);
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    EXPECT_EQ(fileContent(path("file")), "");
    EXPECT_EQ(closeFile(handle), success);
    EXPECT_EQ(fileContent(path("file")), "hello");
    EXPECT_TRUE(fileHandleTable.empty());
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(FileClose, SecondTimeTheHandleIsNotValid) {
    const std::uint64_t handle = openFile("/dev/null");
    EXPECT_EQ(closeFile(handle), success);
    expectRefusal(fileClose, withHandle(handle), "handle is not a valid file");
}

TEST_F(FileClose, OthersStayOpen) {
    const std::uint64_t first = openFile(makeFile("first", "1"));
    const std::uint64_t second = openFile(makeFile("second", "2"));
    const std::uint64_t third = openFile(makeFile("third", "3"));
    EXPECT_EQ(closeFile(second), success);
    EXPECT_EQ(fileHandleTable.size(), 2U);
    EXPECT_EQ(readFile(first, 9), readAnswer("1", true));
    EXPECT_EQ(readFile(third, 9), readAnswer("3", true));
    EXPECT_EQ(closeFile(third), success);
    EXPECT_EQ(closeFile(first), success);
}

TEST_F(FileClose, FailureIsToldAndTheHandleIsGoneNonetheless) {
    const std::size_t before = countDescriptors();
    const std::uint64_t handle = openFile("/dev/full", "w");
    EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
    expectQuietRefusal(fileClose, withHandle(handle), "fclose error 28");
    EXPECT_TRUE(fileHandleTable.empty());
    EXPECT_EQ(countDescriptors(), before);
    expectRefusal(fileClose, withHandle(handle), "handle is not a valid file");
}

}  // namespace
}  // namespace corvane
