#include "commands/handshake/info.h"

#include <algorithm>
#include <string>
#include <vector>

#include "core/command_table.h"
#include "core/message.h"
#include "core/version.h"
#include "platform/platform.h"
#include "platform/remote_login.h"
#include "platform/vsock_sockets.h"

namespace corvane {

namespace {

JsonValue reportOf(const Command& command) {
    JsonObject entry;
    entry.add("name", std::string(command.name));
    entry.add("enabled", JsonNumber::fromBoolean(true));
    entry.add("success-response", JsonNumber::fromBoolean(true));
    return entry;
}

}  // namespace

JsonValue handleGuestInfo() {
    const bool vsockWorks = isVsockAvailable();
    const bool remoteLoginWorks = platform().remoteLogin.isAvailable();

    std::vector<const Command*> reported;
    for (const Command& command : commandTable()) {
        if ((command.reportCondition != ReportCondition::ifVsock || vsockWorks) &&
            (command.reportCondition != ReportCondition::ifRemoteLogin || remoteLoginWorks)) {
            reported.push_back(&command);
        }
    }
    std::ranges::sort(reported, {}, &Command::reportPosition);

    JsonArray supported;
    for (const Command* command : reported) {
        supported.push_back(reportOf(*command));
    }
    JsonObject info;
    info.add("version", std::string(agentVersion));
    info.add("supported_commands", std::move(supported));
    return makeSuccessResponse(std::move(info));
}

}  // namespace corvane
