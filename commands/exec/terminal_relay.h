#pragma once

namespace corvane {

/// The body of a relay process: passes every byte between a connection and the master end of a
/// terminal, both ways at once, until either side ends. What was read is written before it ends.
///
/// Runs in a forked child: makes system calls only. Closes all other descriptors, so that nothing
/// of the agent's stays open for as long as somebody sits at the terminal. Exit status: 255 when it
/// could not begin, the errno value of a read or write that failed, else 0.
[[noreturn]] void runTerminalRelay(int connection, int master) noexcept;

}  // namespace corvane
