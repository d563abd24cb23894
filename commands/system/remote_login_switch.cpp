#include "commands/system/remote_login_switch.h"

#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/remote_login.h"

namespace corvane {

namespace {

bool readSwitch(ArgumentReader& reader) {
    const JsonValue* enabled = reader.optionalValue("enabled");
    if (enabled == nullptr) {
        return false;
    }
    const JsonNumber* number = enabled->number();
    if (number == nullptr) {
        reader.failQuietly("enabled is not a number");
        return false;
    }
    return number->asBoolean();
}

}  // namespace

JsonValue handleGuestSetRemoteLogin(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestSetRemoteLogin", arguments);
    const bool enabled = readSwitch(reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    JsonValue response = makeSuccessResponse(JsonObject());
    if (!platform().remoteLogin.authorise()) {
        return makeErrorResponse(genericError, "failed to set remote login");
    }
    platform().remoteLogin.setEnabled(enabled);
    return response;
}

}  // namespace corvane
