#pragma once

#include <array>

#include "core/command_table.h"

namespace corvane {

/// Every command of the agent, in the order in which names are compared. All are always dispatched,
/// whatever "guest-info" reports.
extern const std::array<Command, 20> allCommands;

}  // namespace corvane
