#include "commands/exec/signal_pid.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include "commands/exec/window_size.h"
#include "core/descriptor_guard.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/process_information.h"

namespace corvane {

namespace {

/// SIGWINCH as hosts number it.
constexpr std::int32_t windowChangeSignal = 28;

JsonValue failure(std::string description) {
    return makeErrorResponse(genericError, std::move(description));
}

/// "<what> with errno: <the error's text>"
JsonValue systemFailure(const std::string& what, int error) {
    return failure(what + " with errno: " + errorText(error));
}

/// Nothing when the argument is absent or no number. This command leaves standard error alone, so
/// that it does not use an ArgumentReader, which would report there.
std::optional<std::int32_t> numberOf(const JsonObject& arguments, const char* key) {
    const JsonValue* value = arguments.find(key);
    const JsonNumber* number = value != nullptr ? value->number() : nullptr;
    return number != nullptr ? std::optional(number->asSigned32()) : std::nullopt;
}

/// Reads the size of the terminal that is the process's input and, when a size is given, sets it.
/// Returns the command's answer, or nothing when the signal is still to be sent.
std::optional<JsonValue> resizeTerminal(pid_t process, const JsonValue* newSize) {
    const auto path = platform().processInformation.inputPath(process);
    if (!path) {
        return failure("failed to get path for file descriptor 0");
    }
    auto opened = platform().processInformation.openInput(process);
    if (!opened.ok()) {
        return systemFailure("failed to open path '" + *path + "'", opened.error());
    }
    const DescriptorGuard terminal = opened.take();
    const std::string descriptor = std::to_string(terminal.borrow());
    winsize size{};
    if (::ioctl(terminal.borrow(), TIOCGWINSZ, &size) != 0) {
        const int error = errno;
        return systemFailure("failed to get window size for file descriptor " + descriptor, error);
    }
    if (newSize == nullptr) {
        return std::nullopt;
    }
    // What the request leaves out stays as the terminal has it.
    if (auto error = getWindowSize(*newSize, size)) {
        return error;
    }
    JsonValue response = makeSuccessResponse(JsonObject());
    if (::ioctl(terminal.borrow(), TIOCSWINSZ, &size) != 0) {
        const int error = errno;
        return systemFailure("failed to set window size for file descriptor " + descriptor, error);
    }
    // The terminal itself tells its foreground process group that its size has changed.
    return response;
}

}  // namespace

JsonValue handleGuestSignalPid(const JsonObject* arguments) {
    if (arguments == nullptr) {
        return failure("missing arguments");
    }
    const auto signal = numberOf(*arguments, "signal");
    if (!signal) {
        return failure("signal is not a number");
    }
    const auto process = numberOf(*arguments, "pid");
    if (!process) {
        return failure("pid is not a number");
    }
    if (*signal == windowChangeSignal) {
        if (auto answer = resizeTerminal(*process, arguments->find("mirel-window-size"))) {
            return std::move(*answer);
        }
    }
    JsonValue response = makeSuccessResponse(JsonObject());
    if (::kill(*process, *signal) != 0) {
        const int error = errno;
        return systemFailure("failed to send signal to process " + std::to_string(*process), error);
    }
    return response;
}

}  // namespace corvane
