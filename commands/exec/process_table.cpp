#include "commands/exec/process_table.h"

#include <cstdlib>

namespace corvane {

std::mutex processTableLock;
ProcessTable processTable;

namespace {

/// The reaper thread outlives the table when the process exits. It is kept out from before the
/// table's destruction on: handlers registered later run earlier, so this one takes the lock for
/// good while the table is still whole. See atexit(3).
[[maybe_unused]] const int reaperShutOut = std::atexit([] { processTableLock.lock(); });

}  // namespace

}  // namespace corvane
