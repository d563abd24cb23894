#pragma once

#include <string>
#include <string_view>

#include "core/json_value.h"

namespace corvane {

/// The two classes that an error response may carry.
inline constexpr char genericError[] = "GenericError";
inline constexpr char commandNotFound[] = "CommandNotFound";

/// The description of an error response where memory did not suffice for the request.
inline constexpr char outOfMemory[] = "out of memory";

/// {"error": {"class": errorClass, "desc": description}}. Every error response is built here.
JsonValue makeErrorResponse(const char* errorClass, std::string description);

/// {"return": result}.
JsonValue makeSuccessResponse(JsonValue result);

/// The system's text for an errno value. See strerror(3).
std::string errorText(int error);

/// Writes one entry, formatted as printf(3) does, to the status log, its trailing newline kept.
/// With `fatal` true the process then exits with status 1. Writes nothing when formatting fails.
/// Any thread.
void logStatus(bool fatal, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Writes to the status log that the power button is not listened to. Any thread.
void logPowerButtonUnavailable();

/// Writes an entry of the caller's making to the status log: formatting a long text takes longer
/// than making the response to it. Any thread.
void logStatusText(std::string_view text);

/// Writes `line` to standard error, where handlers report what was wrong with their arguments. A
/// reader that has stopped reading is waited for a tenth of a second, then the rest is dropped: a
/// diagnostic must not hold the agent.
void writeDiagnostic(std::string_view line) noexcept;

/// Writes "Request: '<command> <arguments>'" to the transaction log: the command in clear, the
/// arguments masked. `arguments` is null when the request had none.
void logRequest(const JsonValue& command, const JsonValue* arguments);

/// Writes "Response: '<response>'" to the transaction log, the response masked.
void logResponse(const JsonValue& response);

/// How a value stands in a text: a string as it is, any other as its JSON text.
std::string textForm(const JsonValue& value);

}  // namespace corvane
