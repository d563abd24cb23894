#include "core/base64.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "core/base64_codecs.h"
#include "tests/fakes/plain_base64.h"

namespace corvane {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

std::string randomBytes(std::size_t size) {
    static std::mt19937 generator(20240229);
    std::uniform_int_distribution<int> byte(-128, 127);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(byte(generator)); });
    return bytes;
}

constexpr bool isInAlphabet(int code) {
    return (code >= 'A' && code <= 'Z') || (code >= 'a' && code <= 'z') ||
           (code >= '0' && code <= '9') || code == '+' || code == '/';
}

/// Memory between two pages that must not be touched, so that a byte too far is a fault.
class FencedMemory {
 public:
    FencedMemory() {
        void* const start =
            ::mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (start == MAP_FAILED) {
            throw std::bad_alloc();
        }
        start_ = static_cast<char*>(start);
        if (::mprotect(first(), page_, PROT_READ | PROT_WRITE) != 0) {
            ::munmap(start, 3 * page_);
            throw std::bad_alloc();
        }
    }
    ~FencedMemory() { ::munmap(start_, 3 * page_); }
    FencedMemory(const FencedMemory&) = delete;
    FencedMemory& operator=(const FencedMemory&) = delete;

    [[nodiscard]] char* first() const noexcept { return start_ + page_; }

    /// The start of the last `size` bytes.
    [[nodiscard]] char* last(std::size_t size) const noexcept { return first() + page_ - size; }

 private:
    std::size_t page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    char* start_ = nullptr;
};

/// `content` as the first or the last thing in the memory.
std::string_view putFirst(const FencedMemory& memory, std::string_view content) {
    std::copy(content.begin(), content.end(), memory.first());
    return {memory.first(), content.size()};
}

std::string_view putLast(const FencedMemory& memory, std::string_view content) {
    std::copy(content.begin(), content.end(), memory.last(content.size()));
    return {memory.last(content.size()), content.size()};
}

constexpr std::string_view vectors[][2] = {
    // RFC 4648 section 10
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    // others
    {"hello", "aGVsbG8="},
    {"\xFB\xEF\xBE\xFF\xFF\xFF", "++++////"},
};

TEST(Base64, GivesTheTextsOfTheStandardBothWays) {
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(encodeBase64(bytes), text);
        EXPECT_EQ(decodeBase64(text), bytes);
        EXPECT_EQ(base64Length(bytes.size()), text.size());
    }
}

TEST(Base64, RefusesWrongPadding) {
    for (const std::string_view text :
         {"="sv,        "=="sv,       "==="sv,      "===="sv,    "a"sv,        "ab"sv,
          "abc"sv,      "a="sv,       "ab="sv,      "a=="sv,     "a==="sv,     "=abc"sv,
          "ab=c"sv,     "a=bc"sv,     "a=b="sv,     "=ab="sv,    "=a=="sv,     "abcd="sv,
          "abcd=="sv,   "abcd==="sv,  "abcd===="sv, "abc==="sv,  "Zg==Zg=="sv, "ab==cd=="sv,
          "Zm8=Zm8="sv, "Zg==Zm9v"sv, "Zm9vZg="sv,  "Zm9vYmE"sv, "Zm9vYg"sv,   "Zm9v===="sv}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

TEST(Base64, AcceptsNoOtherBitsBeforeThePaddingThanZeroes) {
    for (const char last : base64Alphabet) {
        const std::string one = "aGVsb"s + last + "==";
        const std::string two = "aGVsbG"s + last + "=";
        EXPECT_EQ(decodeBase64(one).has_value(), "AQgw"sv.find(last) != std::string_view::npos)
            << one;
        EXPECT_EQ(decodeBase64(two).has_value(),
                  "AEIMQUYcgkosw048"sv.find(last) != std::string_view::npos)
            << two;
    }
    EXPECT_EQ(decodeBase64("aGVsbG9="), std::nullopt);
}

TEST(Base64, RefusesBlanksAndLineBreaks) {
    for (const std::string_view text :
         {"aGVs bG8="sv, " aGVsbG8="sv, "aGVsbG8= "sv, "aGVsbG8=\n"sv, "aGVs\nbG8="sv,
          "aGVs\r\nbG8="sv, "aGVs    bG8="sv, "    "sv, "aGVsbG8=\0\0\0\0"sv, "\0\0\0\0"sv}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

TEST(Base64, RefusesTheAlphabetOfUrls) {
    EXPECT_EQ(decodeBase64("ab-_"), std::nullopt);
    EXPECT_TRUE(decodeBase64("ab+/").has_value());
}

TEST(Base64, EncodesAFilePieceByPiece) {
    const std::string bytes = randomBytes(1000);
    std::string text(base64Length(bytes.size()), '?');
    char* at = text.data();
    for (std::string_view rest = bytes; !rest.empty();) {
        const std::string_view piece = rest.substr(0, 51);
        encodeBase64(piece, at);
        at += base64Length(piece.size());
        rest.remove_prefix(piece.size());
    }
    EXPECT_EQ(text, encodeSlowly(bytes));
}

TEST(Base64, EncodesAndDecodesLongBytes) {
    for (const std::size_t size : {16384U, 65537U, 3145727U}) {
        const std::string bytes = randomBytes(size);
        const std::string text = encodeBase64(bytes);
        EXPECT_TRUE(text == encodeSlowly(bytes)) << size;
        EXPECT_TRUE(decodeBase64(text) == bytes) << size;
    }
}

/// Each codec by itself, whichever the processor has.
class Base64CodecTest : public testing::TestWithParam<const Base64Codec*> {
 protected:
    static std::string encode(std::string_view bytes) {
        std::string text(base64Length(bytes.size()), '?');
        encodeBase64With(*GetParam(), bytes, text.data());
        return text;
    }

    static std::optional<std::string> decode(std::string_view text) {
        std::string bytes(decodedBase64Length(text), '?');
        return decodeBase64With(*GetParam(), text, bytes.data()) ? std::optional(bytes)
                                                                 : std::nullopt;
    }
};

TEST_P(Base64CodecTest, GivesTheTextsOfTheStandardBothWays) {
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(encode(bytes), text);
        EXPECT_EQ(decode(text), bytes);
    }
}

TEST_P(Base64CodecTest, DoesMostOfALongTextItself) {
    const std::string bytes = randomBytes(999);
    std::string text(base64Length(bytes.size()), '?');
    EXPECT_GE(GetParam()->encodeGroups(bytes, text.data()), 960U);
    text = encodeSlowly(bytes);
    std::string decoded(bytes.size(), '?');
    EXPECT_GE(GetParam()->decodeGroups(text, decoded.data()), text.size() - 44);
}

TEST_P(Base64CodecTest, EncodesAndDecodesBytesOfEachLength) {
    for (std::size_t size = 0; size <= 200; ++size) {
        for (int round = 0; round < 20; ++round) {
            const std::string bytes = randomBytes(size);
            const std::string text = encode(bytes);
            ASSERT_EQ(text, encodeSlowly(bytes));
            ASSERT_EQ(decode(text), bytes);
        }
    }
}

/// All pairs of characters' values, so that no value depends on its neighbour's.
TEST_P(Base64CodecTest, EncodesAndDecodesAllPairsOfCharacters) {
    std::string text;
    for (const char first : base64Alphabet) {
        for (const char second : base64Alphabet) {
            text += first;
            text += second;
        }
    }
    for (const std::ptrdiff_t shift : {0, 1}) {
        std::rotate(text.begin(), text.begin() + shift, text.end());
        const auto bytes = decode(text);
        ASSERT_TRUE(bytes.has_value());
        EXPECT_EQ(encode(*bytes), text);
        EXPECT_EQ(encodeSlowly(*bytes), text);
    }
}

TEST_P(Base64CodecTest, KnowsEachCharacterAtEachPosition) {
    const std::string valid = encodeSlowly(randomBytes(96));
    for (std::size_t at = 0; at < valid.size(); ++at) {
        for (int code = 0; code < 256; ++code) {
            std::string text = valid;
            text[at] = static_cast<char>(code);
            const auto bytes = decode(text);
            if (isInAlphabet(code)) {
                ASSERT_TRUE(bytes.has_value()) << code << " at " << at;
                ASSERT_EQ(encodeSlowly(*bytes), text);
            } else if (code != '=' || at + 1 != valid.size()) {
                ASSERT_EQ(bytes, std::nullopt) << code << " at " << at;
            }
        }
    }
}

TEST_P(Base64CodecTest, FindsAWrongCharacterAnywhereInATextOfAnyLength) {
    for (std::size_t size = 4; size <= 140; size += 4) {
        for (std::size_t padding = 0; padding < 3; ++padding) {
            const std::string valid = encodeSlowly(randomBytes(size / 4 * 3 - padding));
            for (std::size_t at = 0; at < size; ++at) {
                for (const char wrong : {'\0', ' ', '\n', '-', '_', '.', '@', '[', '`', '{', ':',
                                         ',', '\x7F', '\x80', '\xC1', '\xFF'}) {
                    std::string text = valid;
                    text[at] = wrong;
                    ASSERT_EQ(decode(text), std::nullopt) << text;
                }
            }
        }
    }
}

TEST_P(Base64CodecTest, AcceptsPaddingOnlyAtTheEnd) {
    for (std::size_t size = 8; size <= 140; size += 4) {
        const std::string valid = encodeSlowly(randomBytes(size / 4 * 3));
        for (std::size_t at = 0; at + 1 < size; ++at) {
            std::string text = valid;
            text[at] = '=';
            ASSERT_EQ(decode(text), std::nullopt) << text;
            text[at + 1] = '=';
            // Two at the end are right after a character whose bits they leave are zero.
            text[size - 3] = at == size - 2 ? 'A' : text[size - 3];
            ASSERT_EQ(decode(text).has_value(), at == size - 2) << text;
        }
    }
}

/// Input and output end, or start, where the memory does.
TEST_P(Base64CodecTest, TouchesNoByteOutsideItsBuffers) {
    const FencedMemory input;
    const FencedMemory output;
    for (std::size_t size = 0; size <= 200; ++size) {
        const std::string bytes = randomBytes(size);
        const std::string text = encodeSlowly(bytes);
        for (const auto& put : {putFirst, putLast}) {
            for (const bool outputIsLast : {false, true}) {
                char* const textAt = outputIsLast ? output.last(text.size()) : output.first();
                encodeBase64With(*GetParam(), put(input, bytes), textAt);
                ASSERT_EQ(std::string_view(textAt, text.size()), text);

                char* const bytesAt = outputIsLast ? output.last(size) : output.first();
                ASSERT_TRUE(decodeBase64With(*GetParam(), put(input, text), bytesAt));
                ASSERT_EQ(std::string_view(bytesAt, size), bytes);
            }
        }
    }
}

/// Also when a text is refused. The bytes about the output are as they were.
TEST_P(Base64CodecTest, LeavesTheBytesAboutItsOutputAlone) {
    constexpr std::size_t margin = 64;
    for (std::size_t size = 0; size <= 200; ++size) {
        const std::string bytes = randomBytes(size);
        std::string text = encodeSlowly(bytes);
        std::string target(margin + text.size() + margin, '?');
        encodeBase64With(*GetParam(), bytes, target.data() + margin);
        ASSERT_EQ(target, std::string(margin, '?') + text + std::string(margin, '?'));

        for (const bool valid : {true, false}) {
            target.assign(margin + size + margin, '?');
            ASSERT_EQ(decodeBase64With(*GetParam(), text, target.data() + margin), valid);
            ASSERT_EQ(target.substr(0, margin), std::string(margin, '?'));
            ASSERT_EQ(target.substr(margin + size), std::string(margin, '?'));
            if (text.empty()) {
                break;
            }
            text[text.size() / 2] = '!';
        }
    }
}

TEST_P(Base64CodecTest, NeedsNoAlignment) {
    const std::string bytes = randomBytes(150);
    const std::string text = encodeSlowly(bytes);
    for (std::size_t offset = 0; offset < 64; ++offset) {
        for (const std::size_t targetOffset : {std::size_t{0}, std::size_t{1}, 63 - offset}) {
            const std::string unalignedBytes = std::string(offset, '?') + bytes;
            std::string target(targetOffset + text.size(), '?');
            encodeBase64With(*GetParam(), std::string_view(unalignedBytes).substr(offset),
                             target.data() + targetOffset);
            ASSERT_EQ(target.substr(targetOffset), text);

            const std::string unalignedText = std::string(offset, '?') + text;
            target.assign(targetOffset + bytes.size(), '?');
            ASSERT_TRUE(decodeBase64With(*GetParam(),
                                         std::string_view(unalignedText).substr(offset),
                                         target.data() + targetOffset));
            ASSERT_EQ(target.substr(targetOffset), bytes);
        }
    }
}

std::vector<const Base64Codec*> allCodecs() {
    std::vector<const Base64Codec*> all = {&portableBase64Codec};
    for (const Base64Codec& codec : vectorBase64Codecs()) {
        all.push_back(&codec);
    }
    return all;
}

#ifdef __x86_64__
TEST(Base64, HasACodecForEachSetOfInstructionsOfTheProcessor) {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line) && !line.starts_with("flags")) {
    }
    std::istringstream words(line);
    const std::set<std::string> flags{std::istream_iterator<std::string>(words), {}};
    ASSERT_TRUE(flags.contains("sse2"));

    std::vector<std::string> expected;
    if (flags.contains("avx2")) {
        expected.emplace_back("AVX2");
    }
    if (flags.contains("ssse3")) {
        expected.emplace_back("SSSE3");
    }
    expected.emplace_back("portable");
    EXPECT_EQ(fastestBase64Codec().name, expected.front());

    std::vector<std::string> names;
    for (const Base64Codec& codec : vectorBase64Codecs()) {
        names.emplace_back(codec.name);
    }
    names.emplace_back(portableBase64Codec.name);
    EXPECT_EQ(names, expected);
}
#endif

INSTANTIATE_TEST_SUITE_P(Codecs, Base64CodecTest, testing::ValuesIn(allCodecs()),
                         [](const auto& test) { return std::string(test.param->name); });

}  // namespace
}  // namespace corvane
