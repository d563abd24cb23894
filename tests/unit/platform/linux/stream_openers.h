#pragma once

#include <cstdio>
#include <string>

#include "platform/linux/linux_file_streams.h"

namespace corvane {

/// A stream as the agent opens it.
inline OwnedStream openStream(const std::string& path, const std::string& mode) {
    return LinuxFileStreams().open(path, mode);
}

/// A stream as the C library opens it.
inline OwnedStream openPlainly(const std::string& path, const std::string& mode) {
    return OwnedStream(std::fopen(path.c_str(), mode.c_str()));
}

}  // namespace corvane
