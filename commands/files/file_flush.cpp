#include "commands/files/file_flush.h"

#include <cerrno>
#include <cstdio>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/message.h"

namespace corvane {

JsonValue handleGuestFileFlush(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileFlush", arguments);
    std::FILE* const stream = requireFile(reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    if (std::fflush(stream) != 0) {
        return streamFailure("fflush", errno);
    }
    return makeSuccessResponse(JsonObject());
}

}  // namespace corvane
