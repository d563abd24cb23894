#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-exec-status": whether a program that "guest-exec" has started has ended, how, and what it
/// has written, when that is captured. The first answer after the end is the last one: it removes
/// the program from the process table and its capture files from the file system. Takes
/// `processTableLock`.
JsonValue handleGuestExecStatus(const JsonObject* arguments);

}  // namespace corvane
