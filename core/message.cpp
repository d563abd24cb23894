#include "core/message.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>

#include "core/json_writer.h"
#include "core/masked_value.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace corvane {

namespace {

/// What printf(3) would print; nothing when it can't be formatted or memory does not suffice.
std::optional<std::string> formatted(const char* format, std::va_list values) {
    std::va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return std::nullopt;
    }
    try {
        std::string text(static_cast<std::size_t>(length), '\0');
        std::vsnprintf(text.data(), text.size() + 1, format, values);
        return text;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

/// Writes a transaction entry that `makeText` makes, only when it will be kept. An entry that
/// memory does not suffice for is left out: the request matters more than its trace.
template <typename MakeText>
void logTransaction(MakeText makeText) {
    SystemLog& log = platform().systemLog;
    if (!log.records(LogCategory::transactions)) {
        return;
    }
    try {
        log.write(LogCategory::transactions, makeText());
    } catch (const std::bad_alloc&) {
        return;
    }
}

}  // namespace

JsonValue makeErrorResponse(const char* errorClass, std::string description) {
    JsonObject error;
    error.add("class", std::string(errorClass));
    error.add("desc", std::move(description));
    JsonObject response;
    response.add("error", std::move(error));
    return response;
}

JsonValue makeSuccessResponse(JsonValue result) {
    JsonObject response;
    response.add("return", std::move(result));
    return response;
}

void logStatus(bool fatal, const char* format, ...) {
    std::va_list values;
    va_start(values, format);
    const std::optional<std::string> text = formatted(format, values);
    va_end(values);
    if (text) {
        platform().systemLog.write(LogCategory::status, *text);
    }
    if (fatal) {
        std::exit(EXIT_FAILURE);
    }
}

void logRequest(const JsonValue& command, const JsonValue* arguments) {
    logTransaction(
        [&] { return "Request: '" + textForm(command) + " " + maskedValue(arguments) + "'"; });
}

void logResponse(const JsonValue& response) {
    logTransaction([&] { return "Response: '" + maskedValue(&response) + "'"; });
}

std::string textForm(const JsonValue& value) {
    const std::string* text = value.string();
    return text ? *text : writeJson(value);
}

}  // namespace corvane
