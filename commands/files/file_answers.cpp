#include "commands/files/file_answers.h"

#include <string>

#include "core/message.h"

namespace corvane {

JsonValue streamFailure(const char* call, int error) {
    return makeErrorResponse(genericError,
                             std::string(call).append(" error ").append(std::to_string(error)));
}

JsonObject transferResult(std::uint64_t count, std::FILE* stream) {
    JsonObject result;
    result.add("count", JsonNumber::fromUnsigned(count));
    result.add("eof", JsonNumber::fromBoolean(std::feof(stream) != 0));
    return result;
}

}  // namespace corvane
