#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/vm/soak/soak_load.h"

namespace corvane::vm {

/// $CORVANE_SOAK_SEED, or another one each time.
std::uint64_t soakSeed();

/// The number in a variable of the environment, or `usual`.
std::size_t soakNumber(const char* variable, std::size_t usual);

/// What an agent has and leaves about, when it has nothing to do.
struct Footprint {
    std::string descriptors;   ///< what they are, a line each, sorted
    std::string processes;     ///< how many there are
    std::string zombies;       ///< how many
    std::string captureFiles;  ///< how many
    std::string agent;         ///< its process id
    long privateKibibytes = 0;
};

Footprint footprintOf(SoakTarget& target);

/// What is wrong with `after`, and "" when all is as it was `before` and the memory of the agent's
/// own has not grown by more than 1 MiB. Prints that. `what` has happened in between.
std::string compare(const Footprint& before, const Footprint& after, const std::string& what);

/// Lets a load come to its usual size, then runs it for `span`. Returns what is wrong with what it
/// has left behind, "" when all is as before; prints its figures.
std::string soak(SoakTarget& target, SoakLoad& load, std::chrono::seconds warmUp,
                 std::chrono::seconds span);

}  // namespace corvane::vm
