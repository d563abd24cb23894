#include "commands/exec/process_table.h"

#include <atomic>
#include <cstdlib>

namespace corvane {

std::mutex processTableLock;
ProcessTable processTable;

namespace {

std::atomic<bool> keptLocked = false;

/// The reaper thread outlives the table when the process exits. It is kept out from before the
/// table's destruction on: handlers registered later run earlier, so this one takes the lock for
/// good while the table is still whole. See atexit(3).
[[maybe_unused]] const int reaperShutOut = std::atexit([] {
    if (!keptLocked) {
        processTableLock.lock();
    }
});

}  // namespace

void keepProcessTableLocked(std::unique_lock<std::mutex> lock) noexcept {
    keptLocked = true;
    static_cast<void>(lock.release());
}

}  // namespace corvane
