#pragma once

#include <sys/types.h>

#include <string>

#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {

/// A message bus of a test's own: dbus-daemon as a child, on a socket in a temporary directory.
/// Everybody may do everything on it. Ends with this object, and with the test.
class PrivateBus {
 public:
    /// Returns when the bus can be connected to. `moreConfiguration` goes into its configuration
    /// file, as XML. `option` is one more of its command line.
    explicit PrivateBus(const std::string& moreConfiguration = "",
                        const std::string& option = "--nosyslog");
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    [[nodiscard]] std::string address() const { return "unix:path=" + files_.path("bus"); }

    /// From here on the bus takes connections and does nothing with them: SIGSTOP.
    void stopAnswering() const;

 private:
    TemporaryTree files_;
    pid_t daemon_ = -1;
};

}  // namespace corvane
