#include "core/message.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits.h>
#include <new>
#include <system_error>

#include "core/json_writer.h"
#include "core/masked_value.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace corvane {

namespace {

/// Short entries need no heap, so that the end of memory can be logged, too.
__attribute__((format(printf, 1, 0))) void writeStatus(const char* format, std::va_list values) {
    std::va_list again;
    va_copy(again, values);
    std::array<char, 1024> shortText;
    const int length = std::vsnprintf(shortText.data(), shortText.size(), format, values);
    const auto size = static_cast<std::size_t>(std::max(length, 0));
    SystemLog& log = platform().systemLog;
    if (length >= 0 && size < shortText.size()) {
        log.write(LogCategory::status, {shortText.data(), size});
    } else if (length >= 0) {
        try {
            std::string longText(size, '\0');
            std::vsnprintf(longText.data(), size + 1, format, again);
            log.write(LogCategory::status, longText);
        } catch (const std::bad_alloc&) {
            // Without memory for it the entry is lost.
        }
    }
    va_end(again);
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

std::string errorText(int error) {
    return std::generic_category().message(error);
}

void logStatus(bool fatal, const char* format, ...) {
    std::va_list values;
    va_start(values, format);
    writeStatus(format, values);
    va_end(values);
    if (fatal) {
        std::exit(EXIT_FAILURE);
    }
}

void logPowerButtonUnavailable() {
    logStatusText("Unable to register for HID power button events.\n");
}

void logStatusText(std::string_view text) {
    platform().systemLog.write(LogCategory::status, text);
}

void writeDiagnostic(std::string_view line) noexcept {
    constexpr int patience = 100;  // milliseconds
    while (!line.empty()) {
        pollfd reader{STDERR_FILENO, POLLOUT, 0};
        if (::poll(&reader, 1, patience) != 1 || (reader.revents & POLLOUT) == 0) {
            return;
        }
        // A pipe that polls writable takes so many bytes without blocking. See pipe(7).
        const ssize_t count =
            ::write(STDERR_FILENO, line.data(), std::min<std::size_t>(line.size(), PIPE_BUF));
        if (count <= 0) {
            return;
        }
        line.remove_prefix(static_cast<std::size_t>(count));
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
