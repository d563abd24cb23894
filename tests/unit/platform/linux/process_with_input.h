#pragma once

#include <sys/types.h>

#include <functional>

#include "core/descriptor_guard.h"

namespace corvane {

/// A process that waits, with an input of the test's choice, for as long as this object lives.
class ProcessWithInput {
 public:
    /// `findInput` runs in the new process and returns what becomes its descriptor 0; -1 for none.
    explicit ProcessWithInput(const std::function<int()>& findInput);
    ~ProcessWithInput();
    ProcessWithInput(const ProcessWithInput&) = delete;
    ProcessWithInput& operator=(const ProcessWithInput&) = delete;

    [[nodiscard]] pid_t id() const noexcept { return id_; }
    /// Ends the process and leaves it a zombie.
    void end();
    /// Ends it and collects it: the process is no more.
    void collect();

 private:
    DescriptorGuard life_;  ///< the process lives until this is closed
    pid_t id_ = -1;
    bool collected_ = false;
};

}  // namespace corvane
