#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace corvane::vm {

/// Draws that follow from a seed, the same on every machine.
class Dice {
 public:
    explicit Dice(std::uint64_t seed) : numbers_(seed) {}

    /// From 0 to `count` - 1; `count` must not be 0.
    std::size_t below(std::size_t count) { return numbers_() % count; }
    std::size_t between(std::size_t least, std::size_t most) {
        return least + below(most - least + 1);
    }
    bool oneIn(std::size_t count) { return below(count) == 0; }
    /// Bytes of any value.
    std::string bytes(std::size_t count) {
        std::string made(count, '\0');
        for (char& byte : made) {
            byte = static_cast<char>(below(256));
        }
        return made;
    }

 private:
    std::mt19937_64 numbers_;
};

}  // namespace corvane::vm
