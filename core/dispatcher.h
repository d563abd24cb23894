#pragma once

#include "core/json_value.h"

namespace corvane {

/// Turns one parsed request into one response: checks its shape, logs it, finds its command by the
/// exact name, calls the handler, logs the response. Memory that runs out in a handler is an error
/// response. Main thread.
///
/// Throws std::invalid_argument when "execute" is not a string: such a request is meant to end the
/// agent.
JsonValue dispatchRequest(const JsonValue& request);

}  // namespace corvane
