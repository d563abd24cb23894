#pragma once

#include "core/json_value.h"

namespace corvane {

/// "guest-file-open": opens a file as a C stream and answers the handle by which the other file
/// commands name it, until "guest-file-close". Main thread, which waits where opening does: a FIFO
/// needs somebody at its other end.
JsonValue handleGuestFileOpen(const JsonObject* arguments);

}  // namespace corvane
