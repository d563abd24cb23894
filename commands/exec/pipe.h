#pragma once

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// Both ends of a pipe, close-on-exec.
struct Pipe {
    DescriptorGuard readEnd;
    DescriptorGuard writeEnd;
};

/// A new pipe, or the errno value of pipe2(2). Any thread.
SystemResult<Pipe> makePipe() noexcept;

}  // namespace corvane
