#pragma once

#include <cstddef>
#include <string>

#include "core/system_result.h"

namespace corvane {

/// Reads a file to its end, whatever size it claims: most files of /proc and /sys claim a wrong
/// one. Fails with the errno of open(2) or read(2), and with EFBIG when there is more than `limit`.
SystemResult<std::string> readSmallFile(const std::string& path, std::size_t limit);

}  // namespace corvane
