#pragma once

namespace corvane {

/// The body of a relay process: passes every byte between a connection and the master end of a
/// terminal, both ways at once, until either side ends. What was read before is written then. When
/// the host has vanished, its last bytes go to the terminal as long as that takes some of them
/// every `patience` milliseconds and the program writes nothing. Begins at the end of input of
/// `started`: hanging up before the program has made the terminal its own would not reach it.
///
/// Runs in a forked child: makes system calls only. Closes all other descriptors, so that nothing
/// of the agent's stays open for as long as somebody sits at the terminal. Exit status: 255 when it
/// could not begin, the errno value of a read or write that failed, else 0.
[[noreturn]] void runTerminalRelay(int connection, int master, int started,
                                   int patience = 10'000) noexcept;

}  // namespace corvane
