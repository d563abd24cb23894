// The decoder, which takes many characters at once, against one that takes them one by one; and the
// encoder, as the decoder's inverse.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/base64.h"
#include "core/base64_codecs.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

std::optional<unsigned> valueOf(char character) {
    if (character >= 'A' && character <= 'Z') {
        return static_cast<unsigned>(character - 'A');
    }
    if (character >= 'a' && character <= 'z') {
        return static_cast<unsigned>(character - 'a') + 26;
    }
    if (character >= '0' && character <= '9') {
        return static_cast<unsigned>(character - '0') + 52;
    }
    return character == '+'   ? std::optional(62U)
           : character == '/' ? std::optional(63U)
                              : std::nullopt;
}

/// Collects bits and gives a byte for every eight.
std::optional<std::string> decodeSlowly(std::string_view text) {
    const std::size_t size = text.size();
    for (int i = 0; i < 2 && !text.empty() && text.back() == '='; ++i) {
        text.remove_suffix(1);
    }
    std::string bytes;
    unsigned bits = 0;
    unsigned count = 0;
    for (const char character : text) {
        const auto value = valueOf(character);
        if (!value) {
            return std::nullopt;
        }
        bits = bits << 6U | *value;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count);
            bits &= (1U << count) - 1;
        }
    }
    const bool lengthIsRight = size % 4 == 0 && count < 6;
    return lengthIsRight && bits == 0 ? std::optional(bytes) : std::nullopt;
}

void checkCodec(const Base64Codec& codec, std::string_view text,
                const std::optional<std::string>& expected) {
    if (text.size() % 4 != 0) {
        return;
    }
    std::string bytes(decodedBase64Length(text), '\0');
    const bool valid = decodeBase64With(codec, text, bytes.data());
    check(valid == expected.has_value(), "a codec accepts the same");
    check(!valid || bytes == *expected, "a codec decodes to the same");
}

void run(std::string_view input) {
    const auto expected = decodeSlowly(input);
    const auto bytes = decodeBase64(input);
    check(bytes == expected, "both decoders agree");
    check(!bytes || encodeBase64(*bytes) == input, "an accepted text is that of its bytes");
    check(decodeBase64(encodeBase64(input)) == input, "bytes survive the way there and back");

    checkCodec(portableBase64Codec, input, expected);
    for (const Base64Codec& codec : vectorBase64Codecs()) {
        checkCodec(codec, input, expected);
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
