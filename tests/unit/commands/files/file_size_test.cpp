// Files larger than 4 GiB. They are sparse: hardly any of it is on the disk.

#include <array>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

constexpr std::int64_t gibibyte = std::int64_t{1} << 30U;
constexpr std::int64_t size = 5 * gibibyte + 3;

/// A file of that size, zeroes but for marks at some places.
class FileSize : public FileTest {
 protected:
    FileSize() {
        std::filesystem::resize_file(file_, size);
        handle_ = openFile(file_, "r+");
    }

    void TearDown() override {
        EXPECT_EQ(closeFile(handle_), success);
        FileTest::TearDown();
    }

    void expectAt(std::int64_t position, const std::string& bytes) {
        EXPECT_EQ(seekFile(handle_, position, "set"),
                  seekAnswer(static_cast<std::uint64_t>(position)));
        EXPECT_EQ(readFile(handle_, bytes.size()), readAnswer(bytes, false)) << position;
    }

    const std::string file_ = makeFile("large", "");
    std::uint64_t handle_ = 0;
};

TEST_F(FileSize, PlacesBeyondTheReachOf32BitsAreFoundExactly) {
    const std::array places = {gibibyte,         2 * gibibyte - 3, 2 * gibibyte,
                               4 * gibibyte - 3, 4 * gibibyte,     size - 6};
    for (std::size_t index = 0; index < places.size(); ++index) {
        const auto place = places.at(index);
        EXPECT_EQ(seekFile(handle_, place, "set"), seekAnswer(static_cast<std::uint64_t>(place)));
        EXPECT_EQ(writeFile(handle_, "<" + std::to_string(index) + ">"), writeAnswer(3));
    }
    for (std::size_t index = 0; index < places.size(); ++index) {
        expectAt(places.at(index), "<" + std::to_string(index) + ">");
    }
    expectAt(gibibyte - 3, std::string("\0\0\0<0>\0\0\0", 9));
    expectAt(2 * gibibyte - 4, std::string("\0<1><2>\0", 8));
    expectAt(4 * gibibyte - 4, std::string("\0<3><4>\0", 8));
    expectAt(0, std::string(10, '\0'));
    EXPECT_EQ(flushFile(handle_), success);
    EXPECT_EQ(std::filesystem::file_size(file_), size);
}

TEST_F(FileSize, WaysFromTheEndAndFromHereAreAsLong) {
    EXPECT_EQ(seekFile(handle_, 0, "end"), seekAnswer(size));
    EXPECT_EQ(seekFile(handle_, -size, "end"), seekAnswer(0));
    EXPECT_EQ(seekFile(handle_, 4 * gibibyte + 1, "cur"), seekAnswer(4 * gibibyte + 1));
    EXPECT_EQ(seekFile(handle_, -3 * gibibyte, "cur"), seekAnswer(gibibyte + 1));
    EXPECT_EQ(seekFile(handle_, -size - 1, "end"), errorAnswer("fseek error 22"));
    EXPECT_EQ(seekFile(handle_, -1, "end"), seekAnswer(size - 1));
    EXPECT_EQ(readFile(handle_, 9), readAnswer(std::string(1, '\0'), true));
    EXPECT_EQ(seekFile(handle_, 0, "cur"), seekAnswer(size));
}

TEST_F(FileSize, FileGrowsBeyondItsEnd) {
    EXPECT_EQ(seekFile(handle_, 3 * gibibyte, "end"), seekAnswer(size + 3 * gibibyte));
    EXPECT_EQ(writeFile(handle_, "end"), writeAnswer(3));
    EXPECT_EQ(flushFile(handle_), success);
    EXPECT_EQ(std::filesystem::file_size(file_), size + 3 * gibibyte + 3);
    expectAt(size + 3 * gibibyte, "end");
}

TEST_F(FileSize, ReadIsOfTheCountEvenNearTheStart) {
    EXPECT_EQ(seekFile(handle_, 4 * gibibyte, "set"), seekAnswer(4 * gibibyte));
    EXPECT_EQ(readFile(handle_, 200000), readAnswer(std::string(200000, '\0'), false));
    EXPECT_EQ(seekFile(handle_, 0, "cur"), seekAnswer(4 * gibibyte + 200000));
}

}  // namespace
}  // namespace corvane
