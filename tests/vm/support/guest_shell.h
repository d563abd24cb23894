#pragma once

#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"

namespace corvane::vm {

struct CommandResult {
    int status = 0;
    std::string output;
};

/// The root shell in the guest, behind its second serial port. Not by way of the agent.
class GuestShell {
 public:
    /// Connects to QEMU's socket of that port.
    explicit GuestShell(const std::string& socketPath) : socket_(socketPath) {}

    /// Waits until the guest has started and its services run.
    void awaitReady(Limit limit = hangLimit);

    /// Runs a shell command; output is its standard output and standard error together.
    CommandResult run(std::string_view command, Limit limit = hangLimit);

    /// Like run, but a status other than 0 throws, and a final line feed is cut off.
    std::string check(std::string_view command, Limit limit = hangLimit);

 private:
    LineSocket socket_;
    unsigned lastId_ = 0;
};

}  // namespace corvane::vm
