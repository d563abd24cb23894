#pragma once

#include <unistd.h>

#include <utility>

namespace corvane {

/// Holds one file descriptor for a scope. Move-only.
///
/// On leaving its scope it closes the descriptor when it is greater than 0 and owned. Descriptor 0
/// is never closed here: it is the process's standard input, whoever was handed the number.
/// Any thread, one at a time.
class DescriptorGuard {
 public:
    DescriptorGuard() noexcept = default;

    /// Takes `descriptor` (-1 for none). With `owned` false the guard only carries it.
    explicit DescriptorGuard(int descriptor, bool owned = true) noexcept
        : descriptor_(descriptor), owned_(owned) {}

    DescriptorGuard(DescriptorGuard&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)), owned_(other.owned_) {}

    DescriptorGuard& operator=(DescriptorGuard&& other) noexcept {
        if (this != &other) {
            closeNow();
            descriptor_ = std::exchange(other.descriptor_, -1);
            owned_ = other.owned_;
        }
        return *this;
    }

    DescriptorGuard(const DescriptorGuard&) = delete;
    DescriptorGuard& operator=(const DescriptorGuard&) = delete;

    ~DescriptorGuard() { closeNow(); }

    /// Lends the descriptor, -1 when empty. The guard keeps it.
    [[nodiscard]] int borrow() const noexcept { return descriptor_; }

    /// Hands the descriptor to the caller, who closes it from here on. The guard is empty after.
    [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }

    [[nodiscard]] bool empty() const noexcept { return descriptor_ < 0; }

    /// Closes what is held, if it is ours to close, and is empty after.
    void closeNow() noexcept {
        if (descriptor_ > 0 && owned_) {
            ::close(descriptor_);
        }
        descriptor_ = -1;
    }

 private:
    int descriptor_ = -1;
    bool owned_ = true;
};

}  // namespace corvane
