#pragma once

#include <cstdint>
#include <string>

#include "core/json_value.h"

namespace corvane {

/// Makes the key of all masked values, from the kernel's random source. Called once, at start;
/// without it the first masked value makes the key. Any thread.
/// Throws std::runtime_error when there is no random source.
void makeMaskingKey();

/// What the log shows instead of `value`: "<masked: HHHHHHHHHHHHHHHH>", with a keyed 64-bit hash in
/// hexadecimal of the value's JSON text; of the empty text when there is no value.
///
/// Equal values have equal masks as long as the process runs. The key never leaves the process, so
/// that a reader of the log can't test guesses.
std::string maskedValue(const JsonValue* value);

/// The hash itself: SipHash-2-4 of a short text; of a long one SipHash-2-4 of its XXH3 digest,
/// taken with a secret of its own.
std::uint64_t maskedHash(const JsonValue* value);

}  // namespace corvane
