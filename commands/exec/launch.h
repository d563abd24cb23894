#pragma once

#include "core/json_value.h"

namespace corvane {

struct ExecRequest;

/// Starts the program that `request` describes, remembers it in the process table and answers its
/// process id, or why it could not be started. What fails in the child itself, a program that does
/// not exist among it, is its exit status 255. Takes `processTableLock`. Main thread.
JsonValue launch(ExecRequest request);

}  // namespace corvane
