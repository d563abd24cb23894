#pragma once

namespace corvane {

/// Entry function of the reaper thread: waits for SIGCHLD, which must be blocked in every thread,
/// and reaps for the life of the process.
[[noreturn]] void reapChildren();

/// Reaps every child that has ended and writes its wait status into its record. A child without a
/// record is reaped and forgotten. Takes `processTableLock`. Any thread.
void drainEndedChildren();

}  // namespace corvane
