#include "commands/files/file_read.h"

#include <new>

#include "commands/files/encoded_stream.h"
#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {

namespace {

constexpr std::uint64_t defaultCount = 4096;

/// What the host is not told it has not read.
JsonValue describeRead(std::FILE* stream, EncodedBytes bytes) {
    try {
        JsonObject result = transferResult(bytes.count, stream);
        result.add("buf-b64", PlainText{std::move(bytes.text)});
        requireMemory(roomForLine);
        return makeSuccessResponse(std::move(result));
    } catch (const std::bad_alloc&) {
        unread(stream, bytes.count);
        throw;
    }
}

}  // namespace

JsonValue handleGuestFileRead(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileRead", arguments);
    std::FILE* const stream = requireFile(reader);
    const auto given = reader.optionalNumber("count");
    if (reader.failed()) {
        return reader.takeError();
    }
    const std::uint64_t count = given ? given->asUnsigned64() : defaultCount;
    EncodedBytes bytes = readEncoded(stream, count);
    if (bytes.count < count && std::ferror(stream) != 0) {
        return streamFailure("fread", bytes.error);
    }
    return describeRead(stream, std::move(bytes));
}

}  // namespace corvane
