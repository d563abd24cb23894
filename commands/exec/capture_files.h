#pragma once

#include <optional>
#include <string>

#include "core/descriptor_guard.h"

namespace corvane {

/// A program's two capture files, open for reading and writing, empty.
struct CaptureFiles {
    DescriptorGuard out;
    std::string outPath;
    DescriptorGuard err;
    std::string errPath;
};

/// Makes the next pair, "stdout_N" and "stderr_N" in the agent's private directory, N counting the
/// pairs from 0. A failed attempt does not count. Fills `files` and returns nothing, or what went
/// wrong. Main thread.
std::optional<std::string> openCaptureFiles(CaptureFiles& files);

}  // namespace corvane
