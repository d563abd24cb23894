#include "core/command_table.h"

namespace corvane {

namespace {
std::span<const Command> current;
}

std::span<const Command> commandTable() noexcept {
    return current;
}

void useCommandTable(std::span<const Command> commands) noexcept {
    current = commands;
}

}  // namespace corvane
