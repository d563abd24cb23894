#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane {

/// A serial device as the driver tree shows it.
struct SerialDevice {
    std::string dialInPath;  ///< the path that programs open, such as the agent's well-known one
    std::vector<std::string> driverClasses;  ///< of its parents, nearest first
};

/// The guest's serial devices. One thread.
class SerialDevices {
 public:
    virtual ~SerialDevices() = default;

    /// All of them; nothing when they cannot be listed.
    virtual std::optional<std::vector<SerialDevice>> list() = 0;
};

}  // namespace corvane
