#include "platform/platform.h"

#include <utility>

namespace corvane {

namespace {
Platform* current = nullptr;
}

Platform& platform() noexcept {
    return *current;
}

PlatformScope::PlatformScope(Platform& installed) noexcept
    : previous_(std::exchange(current, &installed)) {}

PlatformScope::~PlatformScope() {
    current = previous_;
}

}  // namespace corvane
