#pragma once

namespace corvane {

/// The entry function of a thread that runs for the life of the process.
using ThreadEntry = void (*)();

/// The work that goes on beside the read loop, each on a thread of its own.
struct BackgroundWork {
    /// The power button. May come back. All signals are blocked in its thread.
    ThreadEntry listenForPowerButton;
    /// Collects ended children. SIGCHLD is blocked in its thread.
    ThreadEntry reapChildren;
};

/// Prepares logging, channel, limits and child signals, in this order, checks that this is a
/// virtual machine, starts the work in the background and runs the read loop for good.
/// Ends the process with status 1 where the environment is not the agent's, and with 255 when
/// SIGCHLD cannot be blocked. Main thread, before any other thread is started.
[[noreturn]] void runAgent(const BackgroundWork& work);

}  // namespace corvane
