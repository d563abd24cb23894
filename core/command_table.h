#pragma once

#include <span>
#include <string_view>
#include <variant>

#include "core/json_value.h"

namespace corvane {

/// A command handler: takes the request's "arguments" object, null when the request had none, and
/// returns one response, success or error. Borrows the arguments. Main thread.
using ArgumentsHandler = JsonValue (*)(const JsonObject* arguments);

/// A handler of a command that takes nothing.
using PlainHandler = JsonValue (*)();

using CommandHandler = std::variant<ArgumentsHandler, PlainHandler>;

/// When "guest-info" lists a command.
enum class ReportCondition { always, ifVsock, ifRemoteLogin };

/// One row of the command table.
struct Command {
    std::string_view name;
    CommandHandler handler;
    int reportPosition;  ///< place in the list of "guest-info", from 1
    ReportCondition reportCondition;
};

/// The table in use, in the order in which names are compared.
std::span<const Command> commandTable() noexcept;

/// Sets the table. `main` does so once, tests for themselves; the rows are borrowed for good.
void useCommandTable(std::span<const Command> commands) noexcept;

}  // namespace corvane
