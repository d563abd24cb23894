// SipHash is a keyed hash that withstands guessing, at a few bytes per clock; XXH3 with a random
// secret is many times faster and serves to shorten long texts for it. The text is hashed as it is
// made, so that a value of any size needs no buffer.

#include "core/masked_value.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sodium.h>

#define XXH_STATIC_LINKING_ONLY  // the complete type of the hash's state
#include <xxhash.h>

#include "core/json_writer.h"

namespace corvane {

namespace {

struct MaskingKey {
    std::array<unsigned char, crypto_shorthash_KEYBYTES> shortKey;
    std::array<unsigned char, XXH3_SECRET_DEFAULT_SIZE> longSecret;
};

MaskingKey makeKey() {
    // A key that can be guessed would be worse than no log.
    if (sodium_init() < 0) {
        throw std::runtime_error("no random source for the key of masked values");
    }
    MaskingKey key;
    randombytes_buf(key.shortKey.data(), key.shortKey.size());
    randombytes_buf(key.longSecret.data(), key.longSecret.size());
    return key;
}

const MaskingKey& maskingKey() {
    static const MaskingKey key = makeKey();
    return key;
}

std::uint64_t sipHash(const void* text, std::size_t size) {
    std::array<unsigned char, crypto_shorthash_BYTES> hash;
    crypto_shorthash(hash.data(), static_cast<const unsigned char*>(text), size,
                     maskingKey().shortKey.data());
    std::uint64_t value = 0;
    for (const unsigned char byte : hash) {
        value = value << 8U | byte;
    }
    return value;
}

/// Keeps a text that fits its buffer, and digests one that doesn't.
class HashingSink final : public JsonTextSink {
 public:
    void append(std::string_view text) override {
        if (text.size() > buffer_.size() - used_) {
            digestBuffer();
            if (text.size() > buffer_.size()) {
                XXH3_128bits_update(&state_, text.data(), text.size());
                return;
            }
        }
        std::memcpy(buffer_.data() + used_, text.data(), text.size());
        used_ += text.size();
    }

    std::uint64_t finish() {
        if (!digesting_) {
            return sipHash(buffer_.data(), used_);
        }
        digestBuffer();
        XXH128_canonical_t digest;
        XXH128_canonicalFromHash(&digest, XXH3_128bits_digest(&state_));
        return sipHash(digest.digest, sizeof digest.digest);
    }

 private:
    void digestBuffer() {
        if (!digesting_) {
            const auto& secret = maskingKey().longSecret;
            XXH3_128bits_reset_withSecret(&state_, secret.data(), secret.size());
            digesting_ = true;
        }
        XXH3_128bits_update(&state_, buffer_.data(), used_);
        used_ = 0;
    }

    std::array<char, 1024> buffer_;
    std::size_t used_ = 0;
    bool digesting_ = false;
    XXH3_state_t state_;
};

}  // namespace

void makeMaskingKey() {
    maskingKey();
}

std::uint64_t maskedHash(const JsonValue* value) {
    HashingSink sink;
    if (value != nullptr) {
        writeJson(*value, sink);
    }
    return sink.finish();
}

std::string maskedValue(const JsonValue* value) {
    std::array<char, 32> text;
    const int size = std::snprintf(text.data(), text.size(), "<masked: %016llx>",
                                   static_cast<unsigned long long>(maskedHash(value)));
    return {text.data(), static_cast<std::size_t>(size)};
}

}  // namespace corvane
