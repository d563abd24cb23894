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

/// Lets a load come to its usual size, then runs it for `span`. Returns what is wrong with what it
/// has left behind, "" when all is as before; prints its figures.
std::string soak(SoakLoad& load, std::chrono::seconds warmUp, std::chrono::seconds span);

}  // namespace corvane::vm
