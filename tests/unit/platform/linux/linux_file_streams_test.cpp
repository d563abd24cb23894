#include "platform/linux/linux_file_streams.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cwchar>
#include <functional>
#include <stdio_ext.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "tests/unit/platform/linux/stream_openers.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

/// Modes with a character set. The C library loses memory with each stream that has one, which a
/// sanitizer takes for our fault.
std::vector<std::string> characterSetModes() {
#ifdef __SANITIZE_ADDRESS__
    return {"r,ccs=NOTHING"};
#else
    return {"r,ccs=UTF-8",   "r+,ccs=UTF-8",   "w+b,ccs=UTF-8",   "a,ccs=UTF-8",
            "w,ccs=x",       "rme,ccs=UTF-8",  "r,ccs=mac",       "r,ccs=macintosh",
            "r,ccs=NOTHING", "w+,ccs=NOTHING", "rbbbb,ccs=UTF-8", "rbbbbbb,ccs=NOTHING",
            "r,ccs="};
#endif
}

/// Each letter of fopen(3) alone, before and after a plus, and modes that are read to their seventh
/// letter, past a comma, and wrong.
std::vector<std::string> allModes() {
    std::vector<std::string> modes = characterSetModes();
    for (const std::string odd : {"rbbbb+",
                                  "rbbbbb+",
                                  "rbbbbbb+",
                                  "wbbbbbx",
                                  "wbbbbbbx",
                                  "abxecm+",
                                  "rbecm+b",
                                  "wbcex+m",
                                  "r,+",
                                  "w,+",
                                  "r,m",
                                  "w,x",
                                  "ra+",
                                  "rw",
                                  "r +",
                                  "R",
                                  "",
                                  "z",
                                  "+r",
                                  " r",
                                  "br",
                                  ",r",
                                  "rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr"}) {
        modes.push_back(odd);
    }
    for (const std::string first : {"r", "w", "a"}) {
        for (const std::string letter : {"", "b", "x", "e", "c", "m", "xe", "bxecm"}) {
            modes.push_back(first + letter);
            modes.push_back(first + letter + "+");
            modes.push_back(first + "+" + letter);
        }
    }
    return modes;
}

/// What can be told of a stream from outside.
std::string traitsOf(std::FILE* stream) {
    if (stream == nullptr) {
        return "none";
    }
    return "flags " + std::to_string(::fcntl(::fileno(stream), F_GETFL)) +
           (::__freadable(stream) != 0 ? ", readable" : "") +
           (::__fwritable(stream) != 0 ? ", writable" : "") +
           (std::fwide(stream, 0) > 0 ? ", wide" : "") + ", at " +
           std::to_string(::lseek(::fileno(stream), 0, SEEK_CUR));
}

std::string stateOf(const std::string& path) {
    struct stat file {};
    return ::lstat(path.c_str(), &file) != 0 ? ", absent"
                                             : ", size " + std::to_string(file.st_size) +
                                                   ", mode " + std::to_string(file.st_mode);
}

class LinuxFileStreamsTest : public testing::Test {
 protected:
    using Opener = OwnedStream (*)(const std::string& path, const std::string& mode);
    using Arrange = std::function<void(const std::string& path)>;

    /// What `open` does with what `arrange` puts at a path.
    std::string outcomeOf(Opener open, const std::string& mode, const Arrange& arrange) const {
        const TemporaryTree tree;
        const std::string path = tree.path("file");
        arrange(path);
        const OwnedStream stream = open(path, mode);
        return traitsOf(stream.get()) + stateOf(path);
    }

    void expectAsFopen(const Arrange& arrange) const {
        int opened = 0;
        for (const std::string& mode : allModes()) {
            const std::string plain = outcomeOf(openPlainly, mode, arrange);
            EXPECT_EQ(outcomeOf(openStream, mode, arrange), plain) << "mode " << mode;
            opened += plain.starts_with("none") ? 0 : 1;
        }
        EXPECT_GT(opened, 0) << "nothing was compared";
    }

    TemporaryTree tree_;
};

void writeDigits(const std::string& path) {
    const OwnedStream file = openPlainly(path, "w");
    std::fputs("0123456789", file.get());
}

TEST_F(LinuxFileStreamsTest, FilesAreOpenedAsFopenDoes) {
    expectAsFopen(writeDigits);
}

TEST_F(LinuxFileStreamsTest, MissingFilesAreMadeAsFopenDoes) {
    expectAsFopen([](const std::string& /*path*/) {});
}

TEST_F(LinuxFileStreamsTest, DirectoriesAreOpenedAsFopenDoes) {
    expectAsFopen([](const std::string& path) { ::mkdir(path.c_str(), 0700); });
}

TEST_F(LinuxFileStreamsTest, FifosAreOpenedAsFopenDoes) {
    DescriptorGuard otherEnd;  // without it, opening waits
    expectAsFopen([&otherEnd](const std::string& path) {
        ::mkfifo(path.c_str(), 0600);
        otherEnd = DescriptorGuard(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    });
}

TEST_F(LinuxFileStreamsTest, CharacterDevicesAreOpenedAsFopenDoes) {
    for (const std::string device : {"/dev/null", "/dev/zero", "/dev/full"}) {
        expectAsFopen([&device](const std::string& path) {
            ASSERT_EQ(::symlink(device.c_str(), path.c_str()), 0);
        });
    }
}

TEST_F(LinuxFileStreamsTest, StreamOfADeviceIsOnThatDevice) {
    char byte = 'x';
    const OwnedStream zeros = openStream("/dev/zero", "r");
    ASSERT_NE(zeros, nullptr);
    EXPECT_EQ(std::fread(&byte, 1, 1, zeros.get()), 1U);
    EXPECT_EQ(byte, 0);
    const OwnedStream full = openStream("/dev/full", "a+");
    ASSERT_NE(full, nullptr);
    EXPECT_NE(std::fputc('x', full.get()), EOF);
    EXPECT_EQ(std::fflush(full.get()), EOF);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LinuxFileStreamsTest, SixLettersAfterTheFirstAreRead) {
    const std::string path = tree_.path("file");
    writeDigits(path);
    for (const std::string& where : {path, std::string("/dev/null")}) {
        const OwnedStream update = openStream(where, "rbbbbb+");
        const OwnedStream readOnly = openStream(where, "rbbbbbb+");
        ASSERT_TRUE(update != nullptr && readOnly != nullptr);
        EXPECT_EQ(::fcntl(::fileno(update.get()), F_GETFL) & O_ACCMODE, O_RDWR) << where;
        EXPECT_NE(::__fwritable(update.get()), 0) << where;
        EXPECT_EQ(::fcntl(::fileno(readOnly.get()), F_GETFL) & O_ACCMODE, O_RDONLY) << where;
    }
}

TEST_F(LinuxFileStreamsTest, EveryDescriptorIsCloseOnExec) {
    const std::string path = tree_.path("file");
    for (const std::string& mode : allModes()) {
        for (const std::string& where : {path, std::string("/dev/null")}) {
            writeDigits(path);
            if (const OwnedStream stream = openStream(where, mode); stream != nullptr) {
                EXPECT_EQ(::fcntl(::fileno(stream.get()), F_GETFD), FD_CLOEXEC)
                    << where << " " << mode;
            }
        }
    }
}

TEST_F(LinuxFileStreamsTest, WhatHoldsANulNamesNothing) {
    const std::string path = tree_.path("file");
    writeDigits(path);
    EXPECT_EQ(openStream(path + std::string("\0x", 2), "r"), nullptr);
    EXPECT_EQ(openStream(path, std::string("r\0+", 3)), nullptr);
    EXPECT_EQ(openStream(std::string("/dev/null\0", 10), "r"), nullptr);
    EXPECT_NE(openStream(path, "r"), nullptr);
}

TEST_F(LinuxFileStreamsTest, NewFilesAreForEverybodyLessTheUmask) {
    for (const mode_t mask : {0U, 027U, 0777U}) {
        const std::string path = tree_.path("file" + std::to_string(mask));
        const mode_t before = ::umask(mask);
        EXPECT_NE(openStream(path, "w"), nullptr);
        ::umask(before);
        struct stat file {};
        ASSERT_EQ(::stat(path.c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 07777U, 0666U & ~mask);
    }
}

}  // namespace
}  // namespace corvane
