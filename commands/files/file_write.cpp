#include "commands/files/file_write.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/base64.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {

namespace {

/// Nothing after a failure.
std::optional<std::string> requireBytes(ArgumentReader& reader) {
    const std::string* text = reader.requireString("buf-b64");
    std::optional<std::string> bytes = text != nullptr ? decodeBase64(*text) : std::nullopt;
    if (!bytes) {
        reader.failQuietly("unable to decode buf-b64");
    }
    return bytes;
}

/// How many of the bytes are to be written. Whether there are so many is for the caller to see.
std::uint64_t requestedCount(ArgumentReader& reader, std::size_t available) {
    const auto count = reader.optionalNumber("count");
    return count ? count->asUnsigned64() : available;
}

}  // namespace

JsonValue handleGuestFileWrite(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileWrite", arguments);
    std::FILE* const stream = requireFile(reader);
    const auto bytes = requireBytes(reader);
    const std::size_t available = bytes ? bytes->size() : 0;
    const std::uint64_t count = requestedCount(reader, available);
    if (count > available) {
        reader.failQuietly("requested write of " + std::to_string(count) +
                           " bytes, but provided buffer is only " + std::to_string(available) +
                           " bytes");
    }
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    errno = 0;  // a write that comes out short need not set it
    if (std::fwrite(bytes->data(), 1, count, stream) != count) {
        return streamFailure("fwrite", errno);
    }
    return makeSuccessResponse(transferResult(count, stream));
}

}  // namespace corvane
