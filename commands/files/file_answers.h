#pragma once

#include <cstdint>
#include <cstdio>

#include "core/json_value.h"

namespace corvane {

// The answers that several of the file commands have in common.

/// The error response "<call> error <error>", where `error` is an errno value.
JsonValue streamFailure(const char* call, int error);

/// The members "count" and "eof": how many bytes were moved, and the stream's end-of-file
/// indicator as it is now.
JsonObject transferResult(std::uint64_t count, std::FILE* stream);

}  // namespace corvane
