#pragma once

#include <optional>
#include <string>

#include "core/descriptor_guard.h"

namespace corvane {

struct ExecRequest;

/// The streams of a program that is about to be started, all close-on-exec. Empty guards are
/// streams that are not there.
struct Streams {
    DescriptorGuard input;
    DescriptorGuard output;
    DescriptorGuard error;
    DescriptorGuard inputWriteEnd;  ///< where the request's input data goes
    std::string outPath;            ///< of the capture files; empty without capture
    std::string errPath;
    bool inputServesAll = false;  ///< `input` is standard output and standard error, too
};

/// Opens what `request` asks for into `streams`: standard input first, then standard output and
/// standard error. Returns nothing, or why it failed. Main thread.
std::optional<std::string> openStreams(const ExecRequest& request, Streams& streams);

}  // namespace corvane
