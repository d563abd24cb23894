// A vector codec, where the processor has one, does the bulk and stops where it cannot or will not
// go on: near the end of a buffer, or before a character that it does not know. The portable code
// then does what is left, so that it alone decides about padding and about what is refused.

#include "core/base64.h"

#include "core/base64_codecs.h"
#include "core/heap.h"

namespace corvane {

namespace {

/// A string of `size` characters, to be overwritten. There is no way to leave out the zeroes, and
/// to add them in parts that stay in the cache gains nothing: what takes long with a large string
/// is that its memory is new, and the zeroes meet that first.
std::string makeRoom(std::size_t size) {
    std::string room;
    room.reserve(size);
    preferLargePages(room.data(), room.capacity());
    room.resize(size);
    return room;
}

std::uint32_t byteAt(std::string_view bytes, std::size_t index) noexcept {
    return static_cast<unsigned char>(bytes[index]);
}

std::uint32_t valueAt(std::string_view text, std::size_t index) noexcept {
    return base64Values[static_cast<unsigned char>(text[index])];
}

char characterOf(std::uint32_t bits) noexcept {
    return base64Alphabet[bits & 0x3FU];
}

std::size_t encodeGroups(std::string_view bytes, char* text) noexcept {
    const std::size_t end = bytes.size() - bytes.size() % 3;
    for (std::size_t at = 0; at < end; at += 3, text += 4) {
        const std::uint32_t group =
            byteAt(bytes, at) << 16U | byteAt(bytes, at + 1) << 8U | byteAt(bytes, at + 2);
        text[0] = characterOf(group >> 18U);
        text[1] = characterOf(group >> 12U);
        text[2] = characterOf(group >> 6U);
        text[3] = characterOf(group);
    }
    return end;
}

std::size_t decodeGroups(std::string_view text, char* bytes) noexcept {
    const std::size_t end = text.size() - text.size() % 4;
    for (std::size_t at = 0; at < end; at += 4, bytes += 3) {
        const std::uint32_t first = valueAt(text, at);
        const std::uint32_t second = valueAt(text, at + 1);
        const std::uint32_t third = valueAt(text, at + 2);
        const std::uint32_t fourth = valueAt(text, at + 3);
        if ((first | second | third | fourth) > 0x3FU) {
            return at;
        }
        bytes[0] = static_cast<char>(first << 2U | second >> 4U);
        bytes[1] = static_cast<char>(second << 4U | third >> 2U);
        bytes[2] = static_cast<char>(third << 6U | fourth);
    }
    return end;
}

/// One or two bytes at the end.
void encodeRest(std::string_view bytes, char* text) noexcept {
    const bool one = bytes.size() == 1;
    const std::uint32_t group = byteAt(bytes, 0) << 16U | (one ? 0U : byteAt(bytes, 1) << 8U);
    text[0] = characterOf(group >> 18U);
    text[1] = characterOf(group >> 12U);
    text[2] = one ? '=' : characterOf(group >> 6U);
    text[3] = '=';
}

std::size_t paddingOf(std::string_view text) noexcept {
    return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

/// The padded group at the end. Its second character of two, or third of three, says more than is
/// left to say of a byte: those bits must be zero.
bool decodePaddedGroup(std::string_view group, char* bytes) noexcept {
    const bool one = paddingOf(group) == 2;
    const std::uint32_t first = valueAt(group, 0);
    const std::uint32_t second = valueAt(group, 1);
    const std::uint32_t third = one ? 0U : valueAt(group, 2);
    const std::uint32_t surplus = one ? second & 0xFU : third & 0x3U;
    if ((first | second | third) > 0x3FU || surplus != 0) {
        return false;
    }
    bytes[0] = static_cast<char>(first << 2U | second >> 4U);
    if (!one) {
        bytes[1] = static_cast<char>(second << 4U | third >> 2U);
    }
    return true;
}

}  // namespace

constinit const Base64Codec portableBase64Codec{"portable", encodeGroups, decodeGroups};

const Base64Codec& fastestBase64Codec() noexcept {
    const auto vectorCodecs = vectorBase64Codecs();
    return vectorCodecs.empty() ? portableBase64Codec : vectorCodecs.front();
}

void encodeBase64With(const Base64Codec& codec, std::string_view bytes, char* text) noexcept {
    std::size_t done = codec.encodeGroups(bytes, text);
    done += encodeGroups(bytes.substr(done), text + base64Length(done));
    if (done < bytes.size()) {
        encodeRest(bytes.substr(done), text + base64Length(done));
    }
}

std::size_t decodedBase64Length(std::string_view text) noexcept {
    return text.size() / 4 * 3 - paddingOf(text);
}

bool decodeBase64With(const Base64Codec& codec, std::string_view text, char* bytes) noexcept {
    const std::size_t end = paddingOf(text) == 0 ? text.size() : text.size() - 4;
    const std::string_view groups = text.substr(0, end);
    std::size_t done = codec.decodeGroups(groups, bytes);
    done += decodeGroups(groups.substr(done), bytes + done / 4 * 3);
    return done == end &&
           (end == text.size() || decodePaddedGroup(text.substr(end), bytes + end / 4 * 3));
}

void encodeBase64(std::string_view bytes, char* text) noexcept {
    encodeBase64With(fastestBase64Codec(), bytes, text);
}

std::string encodeBase64(std::string_view bytes) {
    std::string text = makeRoom(base64Length(bytes.size()));
    encodeBase64(bytes, text.data());
    return text;
}

std::optional<std::string> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::optional<std::string> bytes = makeRoom(decodedBase64Length(text));
    if (!decodeBase64With(fastestBase64Codec(), text, bytes->data())) {
        bytes.reset();
    }
    return bytes;
}

}  // namespace corvane
