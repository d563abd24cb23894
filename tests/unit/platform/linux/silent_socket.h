#pragma once

#include <string>
#include <vector>

#include "core/descriptor_guard.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {

/// A listening socket at which nobody takes callers in, as that of a daemon that hangs.
class SilentSocket {
 public:
    enum class Queue {
        roomy,  ///< callers are connected, and then wait
        full    ///< callers are not even connected
    };

    explicit SilentSocket(Queue queue);

    [[nodiscard]] std::string address() const { return "unix:path=" + files_.path("silent"); }

    /// The file stays, and refuses callers.
    void stopListening();

 private:
    TemporaryTree files_;
    DescriptorGuard listener_;
    std::vector<DescriptorGuard> callers_;
};

}  // namespace corvane
