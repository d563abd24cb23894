// Base64 with the vector instructions of x86-64, 16 or 32 characters at once, after Wojciech Mula
// and Daniel Lemire, "Faster Base64 Encoding and Decoding Using AVX2 Instructions" (2018).
//
// The comments show a group of four characters as the bits of its 32-bit word, the highest first.
// a, b, c and d are the six-bit values of its first to fourth character, and of the three bytes
// that they stand for: aaaaaabb bbbbcccc ccdddddd.

#include "core/base64_codecs.h"

#ifdef __x86_64__

#include <algorithm>
#include <immintrin.h>

namespace corvane {

namespace {

/// Where the instruction that looks up 16 bytes, or 32, finds them: by the low four bits of an
/// index. It gives zero where the index has its highest bit set.
using Table = std::array<std::int8_t, 16>;

constexpr std::int8_t toZero = -1;  ///< an index that has its highest bit set

constexpr std::int8_t byteOf(int value) {
    return static_cast<std::int8_t>(value);
}

/// Puts the bytes x, y, z of a group in the order y x z y: each character's six bits then lie
/// within one half of the word.
alignas(16) constexpr Table spread = {1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10};

/// Takes the three bytes of each word in the order of the text, and drops the fourth.
alignas(16) constexpr Table gather = {2, 1,  0,  6,  5,      4,      10,     9,
                                      8, 14, 13, 12, toZero, toZero, toZero, toZero};

/// What to add to a value to get its character. The index is 13 for capitals, whose values are up
/// to 25; else the value less 51, not below 0: 0 for small letters, 1 to 10 for digits, 11, 12.
constexpr int firstSmallLetter = 26;
constexpr int lastSmallLetter = 51;
constexpr int capitalsIndex = 13;
alignas(16) constexpr Table offsetOfValue = [] {
    Table table{};
    for (int value = firstSmallLetter; value < 64; ++value) {
        const int index = std::max(value - lastSmallLetter, 0);
        table[static_cast<std::size_t>(index)] =
            byteOf(base64Alphabet[static_cast<std::size_t>(value)] - value);
    }
    table[capitalsIndex] = byteOf(base64Alphabet[0]);
    return table;
}();

/// The characters of the alphabet have high halves 2 to 7, and there are four patterns of the low
/// halves that go with them: these are the classes 1, 2, 4 and 8. All else is in class 16.
alignas(16) constexpr Table classOfHighHalf = {16, 16, 1,  2,  4,  8,  4,  8,
                                               16, 16, 16, 16, 16, 16, 16, 16};

/// The classes in which a character with this low half is not in the alphabet.
alignas(16) constexpr Table refusedByLowHalf = [] {
    Table table{};
    for (std::size_t high = 0; high < 16; ++high) {
        for (std::size_t low = 0; low < 16; ++low) {
            if (base64Values[high << 4U | low] == notInBase64) {
                table[low] = byteOf(table[low] | classOfHighHalf[high]);
            }
        }
    }
    return table;
}();

/// What to add to a character to get its value, by its high half. The slash needs something else
/// than the plus with the same high half, and has the index before.
constexpr std::size_t slashIndex = ('/' >> 4) - 1;
alignas(16) constexpr Table offsetOfHighHalf = [] {
    Table table{};
    for (const char character : {'+', '0', 'A', 'P', 'a', 'p'}) {
        const auto code = static_cast<unsigned char>(character);
        table[code >> 4U] = byteOf(base64Values[code] - code);
    }
    table[slashIndex] = byteOf(base64Values['/'] - '/');
    return table;
}();

/// Are the tables right for every character? A class must not mix high halves of different
/// patterns, nor a high half or an index of offsetOfValue different offsets.
constexpr bool tablesAreRight() {
    for (std::size_t code = 0; code < 256; ++code) {
        const std::size_t high = code >> 4U;
        const bool refused = (classOfHighHalf[high] & refusedByLowHalf[code & 0xFU]) != 0;
        if (refused != (base64Values[code] == notInBase64)) {
            return false;
        }
        const std::size_t index = code == '/' ? slashIndex : high;
        if (!refused && static_cast<int>(code) + offsetOfHighHalf[index] != base64Values[code]) {
            return false;
        }
    }
    for (int value = 0; value < 64; ++value) {
        const int index =
            value < firstSmallLetter ? capitalsIndex : std::max(value - lastSmallLetter, 0);
        if (value + offsetOfValue[static_cast<std::size_t>(index)] !=
            base64Alphabet[static_cast<std::size_t>(value)]) {
            return false;
        }
    }
    return true;
}
static_assert(tablesAreRight());

// 16 bytes at once, with the SSSE3 instructions.

[[gnu::target("ssse3")]] __m128i load16(const void* from) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

[[gnu::target("ssse3")]] void store16(void* to, __m128i vector) noexcept {
    _mm_storeu_si128(static_cast<__m128i*>(to), vector);
}

[[gnu::target("ssse3")]] __m128i toCharacters16(__m128i bytes) noexcept {
    // bbbbcccc ccdddddd aaaaaabb bbbbcccc
    const __m128i words = _mm_shuffle_epi8(bytes, load16(spread.data()));
    // 00000000 00cccccc 00000000 00aaaaaa, by products of which the high half is taken
    const __m128i even = _mm_mulhi_epu16(_mm_and_si128(words, _mm_set1_epi32(0x0FC0FC00)),
                                         _mm_set1_epi32(0x04000040));
    // 00dddddd 00000000 00bbbbbb 00000000
    const __m128i odd = _mm_mullo_epi16(_mm_and_si128(words, _mm_set1_epi32(0x003F03F0)),
                                        _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(even, odd);

    const __m128i capitals = _mm_cmplt_epi8(values, _mm_set1_epi8(firstSmallLetter));
    const __m128i index = _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(lastSmallLetter)),
                                       _mm_and_si128(capitals, _mm_set1_epi8(capitalsIndex)));
    return _mm_add_epi8(values, _mm_shuffle_epi8(load16(offsetOfValue.data()), index));
}

/// The values of 16 characters. False if one is not in the alphabet.
[[gnu::target("ssse3")]] bool toValues16(__m128i characters, __m128i& values) noexcept {
    // There is no shift of bytes: bits of the neighbour come along. A look-up ignores all of the
    // index but the low four bits and the highest, which the mask clears.
    const __m128i mask = _mm_set1_epi8('/');  // 0x2F, which serves as the slash to look for, too
    const __m128i high = _mm_and_si128(_mm_srli_epi32(characters, 4), mask);
    const __m128i low = _mm_and_si128(characters, mask);
    const __m128i refused = _mm_and_si128(_mm_shuffle_epi8(load16(classOfHighHalf.data()), high),
                                          _mm_shuffle_epi8(load16(refusedByLowHalf.data()), low));
    const __m128i slashes = _mm_cmpeq_epi8(characters, mask);  // -1 where there is one
    const __m128i offsets =
        _mm_shuffle_epi8(load16(offsetOfHighHalf.data()), _mm_add_epi8(high, slashes));
    values = _mm_add_epi8(characters, offsets);
    return _mm_movemask_epi8(_mm_cmpgt_epi8(refused, _mm_setzero_si128())) == 0;
}

/// The bytes of 16 values, which are 00dddddd 00cccccc 00bbbbbb 00aaaaaa: 12, and zeroes.
[[gnu::target("ssse3")]] __m128i toBytes16(__m128i values) noexcept {
    // 0000cccc ccdddddd 0000aaaa aabbbbbb
    const __m128i halves = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    // 00000000 aaaaaabb bbbbcccc ccdddddd
    const __m128i words = _mm_madd_epi16(halves, _mm_set1_epi32(0x00011000));
    return _mm_shuffle_epi8(words, load16(gather.data()));
}

[[gnu::target("ssse3")]] std::size_t encode16(std::string_view bytes, char* text) noexcept {
    std::size_t at = 0;
    for (; bytes.size() - at >= 16; at += 12, text += 16) {  // reads 16 bytes
        store16(text, toCharacters16(load16(bytes.data() + at)));
    }
    return at;
}

[[gnu::target("ssse3")]] std::size_t decode16(std::string_view text, char* bytes) noexcept {
    std::size_t at = 0;
    __m128i values;
    // Writes 16 bytes; 24 characters, or more, have room for 18.
    for (; text.size() - at >= 24 && toValues16(load16(text.data() + at), values);
         at += 16, bytes += 12) {
        store16(bytes, toBytes16(values));
    }
    return at;
}

// The same for 32 bytes, with the AVX2 instructions. They look up and rearrange within each half
// of a vector.

[[gnu::target("avx2")]] __m256i load32(const void* from) noexcept {
    return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

[[gnu::target("avx2")]] void store32(void* to, __m256i vector) noexcept {
    _mm256_storeu_si256(static_cast<__m256i*>(to), vector);
}

[[gnu::target("avx2")]] __m256i inBothHalves(const Table& table) noexcept {
    return _mm256_broadcastsi128_si256(load16(table.data()));
}

[[gnu::target("avx2")]] __m256i toCharacters32(__m256i bytes) noexcept {
    const __m256i words = _mm256_shuffle_epi8(bytes, inBothHalves(spread));
    const __m256i even = _mm256_mulhi_epu16(_mm256_and_si256(words, _mm256_set1_epi32(0x0FC0FC00)),
                                            _mm256_set1_epi32(0x04000040));
    const __m256i odd = _mm256_mullo_epi16(_mm256_and_si256(words, _mm256_set1_epi32(0x003F03F0)),
                                           _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(even, odd);

    const __m256i capitals = _mm256_cmpgt_epi8(_mm256_set1_epi8(firstSmallLetter), values);
    const __m256i index =
        _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(lastSmallLetter)),
                        _mm256_and_si256(capitals, _mm256_set1_epi8(capitalsIndex)));
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(inBothHalves(offsetOfValue), index));
}

[[gnu::target("avx2")]] bool toValues32(__m256i characters, __m256i& values) noexcept {
    const __m256i mask = _mm256_set1_epi8('/');
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(characters, 4), mask);
    const __m256i low = _mm256_and_si256(characters, mask);
    const __m256i slashes = _mm256_cmpeq_epi8(characters, mask);
    const __m256i offsets =
        _mm256_shuffle_epi8(inBothHalves(offsetOfHighHalf), _mm256_add_epi8(high, slashes));
    values = _mm256_add_epi8(characters, offsets);
    return _mm256_testz_si256(_mm256_shuffle_epi8(inBothHalves(classOfHighHalf), high),
                              _mm256_shuffle_epi8(inBothHalves(refusedByLowHalf), low)) != 0;
}

/// 24 bytes, and zeroes.
[[gnu::target("avx2")]] __m256i toBytes32(__m256i values) noexcept {
    const __m256i halves = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i words = _mm256_madd_epi16(halves, _mm256_set1_epi32(0x00011000));
    const __m256i twelves = _mm256_shuffle_epi8(words, inBothHalves(gather));
    return _mm256_permutevar8x32_epi32(twelves, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
}

[[gnu::target("avx2")]] std::size_t encode32(std::string_view bytes, char* text) noexcept {
    std::size_t at = 0;
    for (; bytes.size() - at >= 28; at += 24, text += 32) {  // reads 28 bytes
        const char* const from = bytes.data() + at;
        store32(text, toCharacters32(_mm256_set_m128i(load16(from + 12), load16(from))));
    }
    return at;
}

[[gnu::target("avx2")]] std::size_t decode32(std::string_view text, char* bytes) noexcept {
    std::size_t at = 0;
    __m256i values;
    // Writes 32 bytes; 44 characters, or more, have room for 33.
    for (; text.size() - at >= 44 && toValues32(load32(text.data() + at), values);
         at += 32, bytes += 24) {
        store32(bytes, toBytes32(values));
    }
    return at;
}

constinit const std::array<Base64Codec, 2> codecs = {{
    {"AVX2", encode32, decode32},
    {"SSSE3", encode16, decode16},
}};

}  // namespace

std::span<const Base64Codec> vectorBase64Codecs() noexcept {
    const bool avx2 = __builtin_cpu_supports("avx2") != 0;
    const bool ssse3 = __builtin_cpu_supports("ssse3") != 0;
    // A processor that has the former has the latter.
    return std::span(codecs).subspan(avx2 ? 0 : ssse3 ? 1 : 2);
}

}  // namespace corvane

#else

namespace corvane {

std::span<const Base64Codec> vectorBase64Codecs() noexcept {
    return {};
}

}  // namespace corvane

#endif
