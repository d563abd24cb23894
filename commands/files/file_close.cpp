#include "commands/files/file_close.h"

#include <cerrno>
#include <cstdio>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/message.h"

namespace corvane {

JsonValue handleGuestFileClose(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileClose", arguments);
    std::FILE* const stream = requireFile(reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    // A stream is gone even when closing it fails. The answer is made last: that may fail as well.
    fileHandleTable.erase(stream);
    if (std::fclose(stream) != 0) {
        return streamFailure("fclose", errno);
    }
    return makeSuccessResponse(JsonObject());
}

}  // namespace corvane
