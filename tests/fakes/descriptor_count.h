#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace corvane {

/// How many descriptors this process has, more by the one that it takes to count them.
inline std::size_t countDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace corvane
