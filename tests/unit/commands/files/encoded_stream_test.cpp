#include "commands/files/encoded_stream.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "platform/file_streams.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

/// What the source reads at a time.
constexpr std::size_t pieceSize = 98304;

constexpr std::uint64_t everything = std::numeric_limits<std::uint64_t>::max();

class EncodedStream : public FileTest {
 protected:
    OwnedStream streamOf(std::string_view content) {
        return OwnedStream(std::fopen(makeFile("file", content).c_str(), "r"));
    }
};

void expectBytes(const EncodedBytes& read, std::string_view bytes) {
    EXPECT_EQ(read.count, bytes.size());
    EXPECT_TRUE(read.text == base64ByGroups(bytes)) << bytes.size() << " bytes";
    EXPECT_EQ(read.error, 0);
}

TEST_F(EncodedStream, KnownTexts) {
    // RFC 4648, section 10.
    for (const auto& [bytes, text] :
         {std::pair("", ""), std::pair("f", "Zg=="), std::pair("fo", "Zm8="),
          std::pair("foo", "Zm9v"), std::pair("foob", "Zm9vYg=="), std::pair("fooba", "Zm9vYmE="),
          std::pair("foobar", "Zm9vYmFy")}) {
        EXPECT_EQ(readEncoded(streamOf(bytes).get(), 100).text, text);
    }
}

TEST_F(EncodedStream, EveryByteValue) {
    std::string bytes;
    for (int value = 0; value < 256; ++value) {
        bytes += static_cast<char>(value);
    }
    for (std::size_t begin = 0; begin < 3; ++begin) {
        expectBytes(readEncoded(streamOf(bytes.substr(begin)).get(), 1000), bytes.substr(begin));
    }
}

TEST_F(EncodedStream, ContentsOfAllSizesAroundThePieces) {
    for (const std::size_t pieces : {0U, 1U, 2U, 4U}) {
        for (const int more : {-3, -2, -1, 0, 1, 2, 3, 4, 5}) {
            const auto size = static_cast<std::int64_t>(pieces * pieceSize) + more;
            if (size < 0) {
                continue;
            }
            const std::string bytes = mixedBytes(static_cast<std::size_t>(size));
            const OwnedStream stream = streamOf(bytes);
            expectBytes(readEncoded(stream.get(), everything), bytes);
            EXPECT_NE(std::feof(stream.get()), 0);
            EXPECT_EQ(std::ftell(stream.get()), size);
        }
    }
}

TEST_F(EncodedStream, CountsOfAllSizesAroundThePieces) {
    const std::string bytes = mixedBytes(3 * pieceSize + 100);
    for (const std::size_t pieces : {0U, 1U, 2U, 3U}) {
        for (const int more : {-3, -2, -1, 0, 1, 2, 3, 4}) {
            const auto count = static_cast<std::int64_t>(pieces * pieceSize) + more;
            if (count < 0) {
                continue;
            }
            const OwnedStream stream = streamOf(bytes);
            const auto wanted = static_cast<std::size_t>(count);
            expectBytes(readEncoded(stream.get(), wanted),
                        std::string_view(bytes).substr(0, wanted));
            EXPECT_EQ(std::feof(stream.get()), 0);
            EXPECT_EQ(std::ftell(stream.get()), count);
        }
    }
}

TEST_F(EncodedStream, WholeFileExactlyDoesNotMeetTheEnd) {
    for (const std::size_t size : {std::size_t{1}, pieceSize - 1, pieceSize, 2 * pieceSize}) {
        const std::string bytes = mixedBytes(size);
        const OwnedStream stream = streamOf(bytes);
        expectBytes(readEncoded(stream.get(), size), bytes);
        EXPECT_EQ(std::feof(stream.get()), 0);
        expectBytes(readEncoded(stream.get(), 1), "");
        EXPECT_NE(std::feof(stream.get()), 0);
    }
}

TEST_F(EncodedStream, GoesOnFromWhatIsInTheBufferAlready) {
    const std::string bytes = mixedBytes(2 * pieceSize);
    for (const std::size_t before : {1U, 2U, 3U, 4095U, 4096U, 4097U, 10000U}) {
        const OwnedStream stream = streamOf(bytes);
        expectBytes(readEncoded(stream.get(), before), std::string_view(bytes).substr(0, before));
        expectBytes(readEncoded(stream.get(), pieceSize),
                    std::string_view(bytes).substr(before, pieceSize));
        expectBytes(readEncoded(stream.get(), everything),
                    std::string_view(bytes).substr(before + pieceSize));
    }
}

TEST_F(EncodedStream, FifoIsReadUntilItsWriterHasGone) {
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    const std::string bytes = mixedBytes(3 * pieceSize + 1);
    // More than fits into a FIFO: it comes in parts.
    std::thread writer([&] {
        const OwnedStream stream(std::fopen(path("fifo").c_str(), "w"));
        std::setbuf(stream.get(), nullptr);
        std::fwrite(bytes.data(), 1, 1, stream.get());
        std::fwrite(bytes.data() + 1, 1, 50000, stream.get());
        std::fwrite(bytes.data() + 50001, 1, bytes.size() - 50001, stream.get());
    });
    OwnedStream stream(std::fopen(path("fifo").c_str(), "r"));
    expectBytes(readEncoded(stream.get(), everything), bytes);
    EXPECT_NE(std::feof(stream.get()), 0);
    stream.reset();  // nor would the writer wait for a reader that has given up
    writer.join();
}

TEST_F(EncodedStream, ErrorNumberIsThatOfTheReadAndNotAnOlderOne) {
    const OwnedStream file = streamOf("content");
    const OwnedStream directory(std::fopen(path("").c_str(), "r"));
    errno = ENOMEM;
    EXPECT_EQ(readEncoded(file.get(), 100).error, 0);
    EXPECT_EQ(readEncoded(directory.get(), 100).error, EISDIR);
    EXPECT_EQ(readEncoded(file.get(), 100).error, 0);
}

TEST_F(EncodedStream, NothingIsAskedOfTheStreamForNothing) {
    const OwnedStream directory(std::fopen(path("").c_str(), "r"));
    expectBytes(readEncoded(directory.get(), 0), "");
    EXPECT_EQ(std::ferror(directory.get()), 0);
}

TEST_F(EncodedStream, FileThatIsLongerThanItSaysIsReadToItsEnd) {
    const std::string bytes = mixedBytes(3 * pieceSize);
    const OwnedStream stream = streamOf(bytes.substr(0, 10));
    EXPECT_EQ(std::fgetc(stream.get()), static_cast<unsigned char>(bytes[0]));
    makeFile("file", bytes);  // the same file, which has grown
    const EncodedBytes read = readEncoded(stream.get(), everything);
    EXPECT_EQ(read.count, bytes.size() - 1);
    EXPECT_TRUE(read.text == base64ByGroups(std::string_view(bytes).substr(1)));
}

}  // namespace
}  // namespace corvane
