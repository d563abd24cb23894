#include "commands/system/shutdown.h"

#include <optional>
#include <string>

#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/power_control.h"

namespace corvane {

namespace {

/// "halt" powers off like "powerdown": a machine that merely stands still is of no use to a host.
std::optional<PowerAction> actionOf(const std::string* mode) {
    if (mode == nullptr || *mode == "halt" || *mode == "powerdown") {
        return PowerAction::powerOff;
    }
    return *mode == "reboot" ? std::optional(PowerAction::restart) : std::nullopt;
}

}  // namespace

JsonValue handleGuestShutdown(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestShutdown", orNone(arguments));
    const auto action = actionOf(reader.optionalString("mode"));
    if (!action) {
        reader.failQuietly("unsupported mode");
    }
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    JsonValue response = makeSuccessResponse(JsonObject());
    if (!platform().powerControl.perform(*action)) {
        return makeErrorResponse(genericError, "failed to shutdown");
    }
    return response;
}

}  // namespace corvane
