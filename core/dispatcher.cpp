#include "core/dispatcher.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/command_table.h"
#include "core/message.h"

namespace corvane {

namespace {

/// Sized beforehand: a name may be as long as a request.
std::string enclosed(std::string_view before, std::string_view name, std::string_view after) {
    std::string text;
    text.reserve(before.size() + name.size() + after.size());
    text.append(before).append(name).append(after);
    return text;
}

JsonValue callHandler(const CommandHandler& handler, const JsonObject* arguments) {
    if (const auto* plain = std::get_if<PlainHandler>(&handler)) {
        return (*plain)();
    }
    return std::get<ArgumentsHandler>(handler)(arguments);
}

JsonValue answerCommand(const JsonValue& execute, const JsonObject* arguments) {
    const std::string* name = execute.string();
    if (!name) {
        throw std::invalid_argument("'execute' is not a string");
    }
    const auto commands = commandTable();
    const auto command = std::ranges::find(commands, *name, &Command::name);
    if (command == commands.end()) {
        logStatusText(enclosed("Unknown command: ", *name, "\n"));
        return makeErrorResponse(commandNotFound, enclosed("Invalid command '", *name, "'"));
    }
    return callHandler(command->handler, arguments);
}

JsonValue answerWithinMemory(const JsonValue& execute, const JsonObject* arguments) {
    try {
        return answerCommand(execute, arguments);
    } catch (const std::bad_alloc&) {
        return makeErrorResponse(genericError, outOfMemory);
    }
}

}  // namespace

JsonValue dispatchRequest(const JsonValue& request) {
    const JsonObject* object = request.object();
    if (!object) {
        return makeErrorResponse(genericError, "request is not a dictionary");
    }
    const JsonValue* execute = object->find("execute");
    if (!execute) {
        return makeErrorResponse(genericError, "cannot find 'execute' key");
    }
    const JsonValue* arguments = object->find("arguments");
    if (arguments && !arguments->object()) {
        return makeErrorResponse(genericError, "arguments is not a dictionary");
    }
    logRequest(*execute, arguments);
    JsonValue response = answerWithinMemory(*execute, arguments ? arguments->object() : nullptr);
    logResponse(response);
    return response;
}

}  // namespace corvane
