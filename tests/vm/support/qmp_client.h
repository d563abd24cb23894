#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"

namespace corvane::vm {

/// QEMU's own control channel, as far as the tests need it.
class QmpClient {
 public:
    /// Connects and agrees on capabilities.
    explicit QmpClient(const std::string& socketPath);

    /// Runs a command without arguments and returns its answer line. Throws when QEMU refuses it.
    std::string execute(std::string_view command);

    /// Waits for an event of this name and returns its line. It may have come before the answers
    /// of earlier commands; each is given once, and those before it are dropped.
    std::string awaitEvent(std::string_view name, Limit limit = hangLimit);

 private:
    LineSocket socket_;
    std::deque<std::string> events_;
};

}  // namespace corvane::vm
