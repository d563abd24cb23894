#pragma once

#include <cstddef>

namespace corvane {

/// The size of the string in the requests that are measured here.
inline constexpr std::size_t largeString = std::size_t{16} << 20U;

/// The peak of extra memory while a request with a large string is answered, in relation to its
/// line: as an argument that is not looked at, and as the name of a command that there is not.
double extraMemoryOfArgument();
double extraMemoryOfUnknownCommand();

}  // namespace corvane
