#include "commands/files/file_open.h"

#include <string>

#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/file_streams.h"
#include "platform/platform.h"

namespace corvane {

JsonValue handleGuestFileOpen(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileOpen", arguments);
    const std::string* path = reader.requireString("path");
    const std::string* mode = reader.optionalString("mode");
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    OwnedStream stream = platform().fileStreams.open(*path, mode != nullptr ? *mode : "r");
    if (stream == nullptr) {
        return makeErrorResponse(genericError, "invalid path or mode");
    }
    // All that allocates comes before the table takes the stream over.
    JsonValue response = makeSuccessResponse(JsonNumber::fromUnsigned(fileHandle(stream.get())));
    fileHandleTable.emplace(stream.get(), stream.get());
    static_cast<void>(stream.release());
    return response;
}

}  // namespace corvane
