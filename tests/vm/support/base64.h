#pragma once

#include <string>
#include <string_view>

namespace corvane::vm {

/// The tests' own codec, so that the agent's is not tested by itself: the standard alphabet.
std::string encodeBase64(std::string_view bytes);

/// Throws std::invalid_argument at whatever encodeBase64 would not have written.
std::string decodeBase64(std::string_view encoded);

}  // namespace corvane::vm
