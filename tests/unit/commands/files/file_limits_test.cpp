// Counts that no memory suffices for, each in a child process with little room.

#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "commands/files/encoded_stream.h"
#include "core/dispatcher.h"
#include "core/json_writer.h"
#include "platform/file_streams.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/own_memory.h"
#include "tests/unit/commands/files/file_fixture.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20U;

/// Lets this process have so much more address space than it has.
void limitAddressSpace(std::uint64_t more) {
    const rlim_t limit = ownMemory("VmSize") + more;
    const rlimit both{limit, limit};
    ::setrlimit(RLIMIT_AS, &both);
}

/// Ends a child with the number of the check that failed.
void check(int number, bool held) {
    if (!held) {
        ::_exit(number);
    }
}

std::string dispatch(const std::string& command, const std::string& arguments) {
    return writeJson(dispatchRequest(
        valueOf(R"({"execute":")" + command + R"(","arguments":)" + arguments + "}")));
}

class FileLimits : public FileTest {
 protected:
    FileLimits() { useCommandTable(allCommands); }

    [[nodiscard]] std::string makeSparseFile(std::uint64_t size) const {
        std::string file = makeFile("sparse", "first");
        std::filesystem::resize_file(file, size);
        return file;
    }
};

TEST_F(FileLimits, HugeCountOfASmallFileTakesLittleMemory) {
    const std::string file = makeFile("small", "0123456789");
    const std::string expected = readAnswer("0123456789", true);
    EXPECT_EQ(exitStatusOf([&] {
                  const std::uint64_t handle = openFile(file);
                  const std::size_t before = ownMemory("VmHWM");
                  if (!sanitized) {
                      limitAddressSpace(64 * mebibyte);
                  }
                  for (const std::uint64_t count :
                       {std::uint64_t{100'000'000'000}, std::uint64_t{1} << 62U,
                        std::uint64_t{1} << 63U, ~std::uint64_t{0}}) {
                      check(1, readFile(handle, count) == expected);
                      check(2, seekFile(handle, 0, "set") == seekAnswer(0));
                  }
                  check(3, ownMemory("VmHWM") < before + 16 * mebibyte);
                  check(4, closeFile(handle) == success);
                  ::_exit(0);
              }),
              0);
}

TEST_F(FileLimits, HugeCountOfAFileWithoutSizeTakesLittleMemory) {
    EXPECT_EQ(exitStatusOf([] {
                  const std::uint64_t handle = openFile("/proc/version");
                  const std::size_t before = ownMemory("VmHWM");
                  check(1, readFile(handle, ~std::uint64_t{0}) ==
                               readAnswer(fileContent("/proc/version"), true));
                  check(2, ownMemory("VmHWM") < before + 16 * mebibyte);
                  ::_exit(0);
              }),
              0);
}

TEST_F(FileLimits, DeviceWithoutEndIsAnErrorForAHugeCountAndTheAgentGoesOn) {
    if (sanitized) {
        GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
    }
    const std::string file = makeFile("small", "0123456789");
    EXPECT_EQ(exitStatusOf([&] {
                  const std::uint64_t zeroes = openFile("/dev/zero");
                  const std::uint64_t other = openFile(file);
                  limitAddressSpace(256 * mebibyte);
                  const std::string endless = withHandle(zeroes, R"("count":4611686018427387904)");
                  const std::string refusal = errorAnswer("out of memory");
                  for (int turn = 0; turn < 2; ++turn) {
                      check(1, dispatch("guest-file-read", endless) == refusal);
                  }
                  check(2, ownMemory("VmRSS") < 64 * mebibyte);
                  check(3, readFile(other, 100) == readAnswer("0123456789", true));
                  check(4, readFile(zeroes, 3) == readAnswer(std::string(3, '\0'), false));
                  check(5, dispatch("guest-file-close", withHandle(zeroes)) == success);
                  check(6, dispatch("guest-file-close", withHandle(zeroes)) ==
                               errorAnswer("handle is not a valid file"));
                  check(7, closeFile(other) == success);
                  ::_exit(0);
              }),
              0);
}

TEST_F(FileLimits, FileThatDoesNotFitLeavesThePositionWhereItWas) {
    if (sanitized) {
        GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
    }
    const std::string file = makeSparseFile(1024 * mebibyte);
    EXPECT_EQ(exitStatusOf([&] {
                  const std::uint64_t handle = openFile(file);
                  limitAddressSpace(256 * mebibyte);
                  check(1, readFile(handle, 2) == readAnswer("fi", false));
                  const std::string whole = withHandle(handle, R"("count":-1)");
                  check(2, dispatch("guest-file-read", whole) == errorAnswer("out of memory"));
                  check(3, seekFile(handle, 0, "cur") == seekAnswer(2));
                  check(4, dispatch("guest-file-read", whole) == errorAnswer("out of memory"));
                  check(5, readFile(handle, 4) == readAnswer(std::string("rst\0", 4), false));
                  check(6, closeFile(handle) == success);
                  ::_exit(0);
              }),
              0);
}

/// Whether a file of that size can be read with 256 MiB to spare. If not, nothing was read.
bool canBeRead(const std::string& file, std::uint64_t size) {
    std::filesystem::resize_file(file, size);
    const int status = exitStatusOf([&] {
        const OwnedStream stream(std::fopen(file.c_str(), "r"));
        limitAddressSpace(256 * mebibyte);
        try {
            const EncodedBytes read = readEncoded(stream.get(), size);
            check(1, read.count == size && read.text.size() == (size + 2) / 3 * 4);
        } catch (const std::bad_alloc&) {
            check(2, std::ftell(stream.get()) == 0);
            ::_exit(3);
        }
        ::_exit(0);
    });
    EXPECT_TRUE(status == 0 || status == 3) << status;
    return status == 0;
}

TEST_F(FileLimits, FileIsReadAsLongAsItsTextFits) {
    if (sanitized) {
        GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
    }
    const std::string file = makeSparseFile(0);
    EXPECT_TRUE(canBeRead(file, 75 * mebibyte)) << "100 MiB of text";
    EXPECT_FALSE(canBeRead(file, 225 * mebibyte)) << "300 MiB of text";
}

TEST_F(FileLimits, CountOfAWriteIsNoMeasureOfMemory) {
    EXPECT_EQ(exitStatusOf([&] {
                  const std::uint64_t handle = openFile(path("new"), "w");
                  check(1, answerTo(fileWrite, withHandle(handle, R"("buf-b64":"","count":-1)")) ==
                               errorAnswer("requested write of 18446744073709551615 bytes, but "
                                           "provided buffer is only 0 bytes"));
                  check(2, closeFile(handle) == success);
                  ::_exit(0);
              }),
              0);
}

}  // namespace
}  // namespace corvane
