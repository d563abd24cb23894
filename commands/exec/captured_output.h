#pragma once

#include "core/json_value.h"

namespace corvane {

/// What the capture file open on `descriptor` holds, from its first byte to the size that it has
/// at the start of the call, in base64. "" when the file cannot be read, and when memory for the
/// text cannot be had, which the status log then says.
///
/// The offset of the descriptor stays as it is. Main thread.
PlainText readCapturedOutput(int descriptor);

}  // namespace corvane
