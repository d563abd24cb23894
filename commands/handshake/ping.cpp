#include "commands/handshake/ping.h"

#include "core/message.h"

namespace corvane {

JsonValue handleGuestPing() {
    return makeSuccessResponse(JsonObject());
}

}  // namespace corvane
