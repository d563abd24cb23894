// All codecs that this processor can run, which take many characters at once, against one that
// takes them one by one: the input decoded; the input and what is left of it without its first
// bytes encoded, so that every sample tries all ways to end; and what that makes, decoded again,
// whole and with a byte of the input's choice in it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/base64.h"
#include "core/base64_codecs.h"
#include "tests/fakes/plain_base64.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

/// Calls `use` with every codec.
template <typename Use>
void forEachCodec(const Use& use) {
    use(portableBase64Codec);
    for (const Base64Codec& codec : vectorBase64Codecs()) {
        use(codec);
    }
}

/// Room for just so many characters: AddressSanitizer sees one that is written behind them.
std::unique_ptr<char[]> roomFor(std::size_t size) {
    return std::make_unique<char[]>(size);
}

void checkDecoding(std::string_view text) {
    const auto expected = decodeSlowly(text);
    check(decodeBase64(text) == expected, "both decoders agree");
    if (text.size() % 4 != 0) {
        return;
    }
    forEachCodec([&](const Base64Codec& codec) {
        const std::size_t size = decodedBase64Length(text);
        const auto bytes = roomFor(size);
        const bool valid = decodeBase64With(codec, text, bytes.get());
        check(valid == expected.has_value(), "a codec accepts the same");
        check(!valid || std::string_view(bytes.get(), size) == *expected,
              "a codec decodes to the same");
    });
}

/// Returns the bytes' text.
std::string checkEncoding(std::string_view bytes) {
    std::string expected = encodeSlowly(bytes);
    check(encodeBase64(bytes) == expected, "both encoders agree");
    check(base64Length(bytes.size()) == expected.size(), "a text is as long as foretold");
    forEachCodec([&](const Base64Codec& codec) {
        const auto text = roomFor(expected.size());
        encodeBase64With(codec, bytes, text.get());
        check(std::string_view(text.get(), expected.size()) == expected,
              "a codec encodes to the same");
    });
    return expected;
}

void run(std::string_view input) {
    checkDecoding(input);
    const auto bytes = decodeBase64(input);
    check(!bytes || encodeBase64(*bytes) == input, "an accepted text is that of its bytes");

    for (std::string_view rest = input; input.size() - rest.size() < 3; rest.remove_prefix(1)) {
        std::string text = checkEncoding(rest);
        checkDecoding(text);
        if (rest.empty()) {
            return;
        }
        text[static_cast<unsigned char>(rest.front()) % text.size()] = rest.back();
        checkDecoding(text);
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
