#include "core/message.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "core/json_writer.h"
#include "core/masked_value.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace corvane {

namespace {

struct HeapTextDeleter {
    void operator()(char* text) const noexcept { std::free(text); }
};

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
    char* formatted = nullptr;
    std::va_list values;
    va_start(values, format);
    const int length = vasprintf(&formatted, format, values);
    va_end(values);
    if (length >= 0) {
        const std::unique_ptr<char, HeapTextDeleter> text(formatted);
        platform().systemLog.write(LogCategory::status,
                                   {text.get(), static_cast<std::size_t>(length)});
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
