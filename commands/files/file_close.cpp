#include "commands/files/file_close.h"

#include <cerrno>
#include <cstdio>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {

JsonValue handleGuestFileClose(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileClose", arguments);
    std::FILE* const stream = requireFile(reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    // Without memory for the answer nothing is done. A stream is gone even when closing it fails.
    requireMemory(roomForLine);
    JsonValue response = makeSuccessResponse(JsonObject());
    fileHandleTable.erase(stream);
    if (std::fclose(stream) != 0) {
        return streamFailure("fclose", errno);
    }
    return response;
}

}  // namespace corvane
