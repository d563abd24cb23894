#pragma once

#include <string>

#include "core/descriptor_guard.h"

namespace corvane {

class TemporaryTree;

/// A pseudo-terminal: a test holds the master, the code under test opens the path.
class PseudoTerminal {
 public:
    PseudoTerminal();

    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    /// Types at the master's side.
    void type(const std::string& text) const;

 private:
    DescriptorGuard master_;
    std::string path_;
};

/// Makes `tree` a /sys in which the character device at `devicePath` is of the subsystem
/// "virtio-ports".
void declareVirtioPort(const TemporaryTree& tree, const std::string& devicePath);

}  // namespace corvane
