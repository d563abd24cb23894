#pragma once

namespace corvane {

/// Ends the process with status 1, after an entry in the status log that names the exception being
/// handled and its reason. Needs no memory of its own. Called in a catch block, on any thread.
[[noreturn]] void endOnUnhandledException() noexcept;

}  // namespace corvane
