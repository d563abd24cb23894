// Every response of the commands is compared with what the same calls of the C library, one for
// each request, do with a twin of the file.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "core/json_writer.h"
#include "platform/file_streams.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

constexpr std::array modes = {"r", "r+", "w", "w+", "a", "a+"};

/// One random walk through the commands.
class Walk {
 public:
    Walk(unsigned seed, std::string file, std::string twin)
        : random_(seed), file_(std::move(file)), twin_(std::move(twin)) {
        reopen();
    }

    /// One request and its comparison.
    void step() {
        ++steps_;
        const std::size_t dice = upTo(999);
        if (dice < 400) {
            read(size());
        } else if (dice < 700) {
            write(size());
        } else if (dice < 900) {
            seek();
        } else if (dice < 985) {
            flush();
        } else {
            close();
            reopen();
        }
    }

    void close() {
        errno = 0;
        const bool closed = std::fclose(stream_.release()) == 0;
        compare(fileClose, {}, closed ? success : failure("fclose"));
        ASSERT_TRUE(fileContent(file_) == fileContent(twin_)) << where();
    }

 private:
    enum class Last { positioned, read, readToEnd, written };

    std::size_t upTo(std::size_t largest) {
        return std::uniform_int_distribution<std::size_t>(0, largest)(random_);
    }

    /// Mostly small; sometimes several of the pieces in which the agent reads.
    std::size_t size() {
        const std::size_t dice = upTo(999);
        return upTo(dice < 700 ? 64 : dice < 960 ? 5000 : dice < 998 ? 15000 : 300000);
    }

    [[nodiscard]] std::string where() const {
        return "mode " + mode_ + ", step " + std::to_string(steps_) + ": " + lastRequest_;
    }

    static std::string failure(const char* call) {
        return errorAnswer(std::string(call) + " error " + std::to_string(errno));
    }

    [[nodiscard]] bool eof() const { return std::feof(stream_.get()) != 0; }

    void reopen() {
        mode_ = modes.at(upTo(modes.size() - 1));
        stream_.reset(std::fopen(twin_.c_str(), mode_.c_str()));
        handle_ = openFile(file_, mode_);
        last_ = Last::positioned;
    }

    /// Whether the direction may change without a seek between: after reading only at the end of
    /// the file, after writing never. See fopen(3).
    void prepareTo(Last next) {
        const bool fromWriting = next == Last::read && last_ == Last::written;
        const bool fromReading = next == Last::written && last_ == Last::read;
        if (fromWriting && upTo(1) == 0) {
            flush();
        } else if (fromWriting || fromReading) {
            seek();
        }
        // A seek may fail, and then nothing has changed.
        if ((fromWriting || fromReading) && last_ != Last::positioned) {
            rewind();
        }
    }

    void read(std::size_t count) {
        prepareTo(Last::read);
        std::string bytes(count, '\0');
        errno = 0;
        bytes.resize(std::fread(bytes.data(), 1, count, stream_.get()));
        const bool failed = bytes.size() != count && std::ferror(stream_.get()) != 0;
        compare(fileRead, {{"count", JsonNumber::fromUnsigned(count)}},
                failed ? failure("fread") : readAnswer(bytes, eof()));
        last_ = eof() ? Last::readToEnd : Last::read;
    }

    void write(std::size_t count) {
        prepareTo(Last::written);
        const std::string bytes = mixedBytes(count, static_cast<unsigned>(random_()));
        errno = 0;
        const bool written = std::fwrite(bytes.data(), 1, count, stream_.get()) == count;
        compare(fileWrite, {{"buf-b64", JsonValue(base64ByGroups(bytes))}},
                written ? writeAnswer(count, eof()) : failure("fwrite"));
        last_ = Last::written;
    }

    void seek() {
        const auto origin = static_cast<int>(upTo(2));
        const auto reach = static_cast<std::int64_t>(upTo(9) == 0 ? 400000 : 6000);
        const auto offset = std::uniform_int_distribution<std::int64_t>(
            origin == SEEK_SET ? -5 : -reach, reach)(random_);
        seekTo(offset, origin);
    }

    void rewind() { seekTo(0, SEEK_SET); }

    void seekTo(std::int64_t offset, int origin) {
        errno = 0;
        const bool moved = std::fseek(stream_.get(), offset, origin) == 0;
        compare(fileSeek,
                {{"offset", JsonNumber::fromSigned(offset)},
                 {"whence", JsonNumber::fromSigned(origin)}},
                moved ? seekAnswer(static_cast<std::uint64_t>(std::ftell(stream_.get())))
                      : failure("fseek"));
        last_ = moved ? Last::positioned : last_;
    }

    void flush() {
        errno = 0;
        const bool flushed = std::fflush(stream_.get()) == 0;
        compare(fileFlush, {}, flushed ? success : failure("fflush"));
        last_ = last_ == Last::written ? Last::positioned : last_;
    }

    void compare(const FileCommand& command, JsonObject arguments, const std::string& expected) {
        arguments.add("handle", JsonNumber::fromUnsigned(handle_));
        lastRequest_ = command.handlerName;
        const std::string answer = writeJson(command.handler(&arguments));
        ASSERT_TRUE(answer == expected) << where() << " answers " << answer.substr(0, 200)
                                        << " instead of " << expected.substr(0, 200);
    }

    std::mt19937 random_;
    std::string file_;
    std::string twin_;
    std::string mode_;
    OwnedStream stream_;
    std::uint64_t handle_ = 0;
    Last last_ = Last::positioned;
    std::string lastRequest_;
    long steps_ = 0;
};

/// Files that are in no file system: a disk would take most of the time.
class FileModel : public FileTest {
 protected:
    /// A new one, which is there until the next of that name is made.
    std::string memoryFile(const std::string& name, std::string_view content) {
        DescriptorGuard& file = files_[name];
        file = DescriptorGuard(::memfd_create(name.c_str(), MFD_CLOEXEC));
        EXPECT_EQ(::write(file.borrow(), content.data(), content.size()),
                  static_cast<ssize_t>(content.size()));
        return "/proc/self/fd/" + std::to_string(file.borrow());
    }

    void TearDown() override {
        files_.clear();
        FileTest::TearDown();
    }

 private:
    std::map<std::string, DescriptorGuard> files_;
};

TEST_F(FileModel, AnswersAreThoseOfTheCLibraryOverRandomRequests) {
    constexpr long stepsOfOne = 10000;
    for (unsigned seed = 1; seed <= 11; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string start = mixedBytes(50000, seed);
        Walk walk(seed, memoryFile("file", start), memoryFile("twin", start));
        for (long count = 0; count < stepsOfOne && !HasFailure(); ++count) {
            walk.step();
        }
        walk.close();
        if (HasFailure()) {
            return;
        }
    }
}

}  // namespace
}  // namespace corvane
