#include "tests/vm/support/checksum.h"

#include <array>

#include <sodium.h>

namespace corvane::vm {

std::string sha256(std::string_view bytes) {
    std::array<unsigned char, crypto_hash_sha256_BYTES> digest{};
    crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                       bytes.size());
    std::string digits(2 * digest.size() + 1, '\0');
    sodium_bin2hex(digits.data(), digits.size(), digest.data(), digest.size());
    digits.pop_back();  // the terminating zero
    return digits;
}

}  // namespace corvane::vm
