#pragma once

#include <cstddef>
#include <string>

namespace corvane {

/// What the capture file open on `descriptor` holds, from its first byte to the size that it has
/// at the start of the call, in base64. "" when the file cannot be read, and when memory for the
/// text cannot be had, which the status log then says.
///
/// `heldLength` is how much other captured text the same response carries. Memory is asked for
/// what is still to come: this text, and the response's line, which holds all text once more.
///
/// The offset of the descriptor stays as it is. Main thread.
std::string readCapturedOutput(int descriptor, std::size_t heldLength);

}  // namespace corvane
