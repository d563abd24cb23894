#pragma once

#include <string>
#include <vector>

#include "platform/linux/system_bus.h"

namespace corvane {

/// Starts and stops units, and waits until the service manager has done so. Borrows the connection.
class UnitJobs {
 public:
    /// From here on the connection hears of jobs that have ended.
    explicit UnitJobs(SystemBus& manager);

    /// Puts units into the service manager's queue. It goes on whatever becomes of us.
    void start(const char* unit) { enqueue("StartUnit", unit); }
    void stop(const char* unit) { enqueue("StopUnit", unit); }

    /// Waits until all that was put there is done, or failed, or the connection's time is over.
    void await();

 private:
    void enqueue(const char* method, const char* unit);

    SystemBus& manager_;
    std::vector<std::string> pending_;  ///< jobs by their object paths
};

}  // namespace corvane
