#pragma once

namespace corvane {

/// The entry function of a thread that runs for the life of the process.
using ThreadEntry = void (*)();

/// Prepares logging, channel, limits and child signals, in this order, checks that this is a
/// virtual machine, starts `reapChildren` on a thread of its own and runs the read loop for good.
/// Ends the process with status 1 where the environment is not the agent's, and with 255 when
/// SIGCHLD cannot be blocked. Main thread, before any other thread is started.
[[noreturn]] void runAgent(ThreadEntry reapChildren);

}  // namespace corvane
