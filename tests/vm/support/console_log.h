#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"

namespace corvane::vm {

/// The file into which QEMU writes the guest's console: the kernel's messages and the system log.
class ConsoleLog {
 public:
    /// Follows the file at `path`, which must exist.
    explicit ConsoleLog(std::string path);

    const std::string& path() const { return path_; }

    /// How many bytes there are now: a place to look on from.
    std::size_t end() const;
    /// Everything from `start` on.
    std::string since(std::size_t start) const;

    /// Waits until `text` stands somewhere after `start`; returns what stands there up to the end
    /// of its line. Throws HangError with the log's tail when it does not come.
    std::string await(std::string_view text, std::size_t start, Limit limit = hangLimit);

 private:
    std::string path_;
    Descriptor watch_;
};

/// How often `text` occurs in `log`.
std::size_t countOf(std::string_view text, std::string_view log);

}  // namespace corvane::vm
