#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace corvane {

/// Closes a C stream. See fclose(3).
struct StreamCloser {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};

/// A C stream that is closed with its scope; what its closing reports is lost.
using OwnedStream = std::unique_ptr<std::FILE, StreamCloser>;

/// C streams on the guest's files. One thread.
class FileStreams {
 public:
    virtual ~FileStreams() = default;

    /// As fopen(3), whose modes with the C library's extensions these are; waits as long as that
    /// does. The stream's descriptor is close-on-exec, and a terminal does not become the agent's
    /// controlling terminal (but one opened with a character set). Null when there is no such
    /// stream.
    virtual OwnedStream open(const std::string& path, const std::string& mode) = 0;
};

}  // namespace corvane
