#pragma once

#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"

namespace corvane::vm {

/// QEMU's own control channel, as far as the tests need it.
class QmpClient {
 public:
    /// Connects and agrees on capabilities.
    explicit QmpClient(const std::string& socketPath);

    /// Runs a command without arguments and returns its answer line; events are passed over.
    /// Throws when QEMU refuses it.
    std::string execute(std::string_view command);

 private:
    LineSocket socket_;
};

}  // namespace corvane::vm
