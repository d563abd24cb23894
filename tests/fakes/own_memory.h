#pragma once

#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace corvane {

/// A figure of this process in bytes, by its name in /proc/self/status: "VmSize" is its address
/// space, "VmRSS" what of it is resident, "VmHWM" the most that was. See proc(5). Throws
/// std::runtime_error where there is no such figure.
inline std::size_t ownMemory(std::string_view name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word.ends_with(':') && word.compare(0, word.size() - 1, name) == 0) {
            std::size_t kibibytes = 0;
            status >> kibibytes;
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("no figure " + std::string(name));
}

}  // namespace corvane
