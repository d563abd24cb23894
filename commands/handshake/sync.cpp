#include "commands/handshake/sync.h"

#include "core/arguments.h"
#include "core/message.h"
#include "core/read_loop.h"

namespace corvane {

namespace {

JsonValue echoId(const char* handler, const JsonObject* arguments, bool delimited) {
    ArgumentReader reader(handler, arguments);
    const JsonNumber id = reader.requireNumber("id");
    if (reader.failed()) {
        return reader.takeError();
    }
    JsonValue response = makeSuccessResponse(JsonNumber::fromUnsigned(id.asUnsigned64()));
    setDelimiterPending(delimited);
    return response;
}

}  // namespace

JsonValue handleGuestSync(const JsonObject* arguments) {
    return echoId("handleGuestSync", arguments, false);
}

JsonValue handleGuestSyncDelimited(const JsonObject* arguments) {
    return echoId("handleGuestSyncDelimited", arguments, true);
}

}  // namespace corvane
