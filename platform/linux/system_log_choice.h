#pragma once

#include <memory>

#include "platform/system_log.h"

namespace corvane {

/// The system log that this build writes to.
std::unique_ptr<SystemLog> makeSystemLog();

}  // namespace corvane
