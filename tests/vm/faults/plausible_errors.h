#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::vm {

/// The word for a transfer of half the bytes, among the names of errors.
inline constexpr std::string_view shortCount = "short";

/// With what a system call may fail on a machine that is in trouble, as its manual page lists it:
/// names of errno values, and `shortCount`. Empty for calls that fail by a mistake of the caller's
/// alone. Nothing for a call that this table does not know: somebody must look it up.
/// `call` is a line of TracerReport::calls.
std::optional<std::vector<std::string>> plausibleErrors(std::string_view call);

/// The errno value of a name that `plausibleErrors` returns; 0 for `shortCount`.
int errorNumber(std::string_view name);

}  // namespace corvane::vm
