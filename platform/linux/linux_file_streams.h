#pragma once

#include "platform/file_streams.h"

namespace corvane {

/// Streams of the C library. A path or mode with a NUL byte in it names nothing.
class LinuxFileStreams final : public FileStreams {
 public:
    OwnedStream open(const std::string& path, const std::string& mode) override;
};

}  // namespace corvane
