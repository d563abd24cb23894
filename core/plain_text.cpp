#include "core/plain_text.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace corvane {

namespace {

constexpr std::size_t blockSize = 64;  ///< bytes tested at once

/// Written without a branch per byte, so that compilers turn it into vector instructions.
bool isPlainBlock(const char* block) noexcept {
    unsigned special = 0;
    for (std::size_t i = 0; i < blockSize; ++i) {
        const auto byte = static_cast<signed char>(block[i]);
        special |= static_cast<unsigned>(byte < 0x20) | static_cast<unsigned>(byte == '"') |
                   static_cast<unsigned>(byte == '\\');
    }
    return special == 0;
}

#ifdef __x86_64__

/// All bits of the bytes that are not plain.
[[gnu::target("avx2")]] __m256i specialBytes(const char* bytes) noexcept {
    const __m256i block = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
    const __m256i control = _mm256_cmpgt_epi8(_mm256_set1_epi8(0x20), block);
    const __m256i quote = _mm256_cmpeq_epi8(block, _mm256_set1_epi8('"'));
    const __m256i backslash = _mm256_cmpeq_epi8(block, _mm256_set1_epi8('\\'));
    return _mm256_or_si256(control, _mm256_or_si256(quote, backslash));
}

/// Stops where fewer than a block are left.
[[gnu::target("avx2")]] std::size_t vectorPlainLength(std::string_view text) noexcept {
    std::size_t at = 0;
    for (; text.size() - at >= blockSize; at += blockSize) {
        const __m256i first = specialBytes(text.data() + at);
        const __m256i second = specialBytes(text.data() + at + 32);
        const __m256i either = _mm256_or_si256(first, second);
        if (_mm256_testz_si256(either, either) == 0) {
            break;
        }
    }
    return at;
}

std::size_t fastPlainLength(std::string_view text) noexcept {
    static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
    return avx2 ? vectorPlainLength(text) : 0;
}

#else

std::size_t fastPlainLength(std::string_view /*text*/) noexcept {
    return 0;
}

#endif

}  // namespace

std::size_t portablePlainLength(std::string_view text) noexcept {
    std::size_t at = 0;
    while (text.size() - at >= blockSize && isPlainBlock(text.data() + at)) {
        at += blockSize;
    }
    while (at < text.size() && isPlain(text[at])) {
        ++at;
    }
    return at;
}

std::size_t plainLength(std::string_view text) noexcept {
    const std::size_t done = fastPlainLength(text);
    return done + portablePlainLength(text.substr(done));
}

}  // namespace corvane
