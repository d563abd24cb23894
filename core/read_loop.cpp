#include "core/read_loop.h"

#include <chrono>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/channel.h"
#include "core/dispatcher.h"
#include "core/heap.h"
#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/channel_device.h"
#include "platform/platform.h"

namespace corvane {

namespace {

bool delimiterPending = false;

/// Requests and responses from this size on leave the heap as small as they found it.
constexpr std::size_t largeMessage = 1024 * 1024;

/// So many channels may end in a row without having brought a byte before reopening slows down to
/// one a second: a listener that hangs up on every connection must not keep the processor busy.
constexpr int silentChannelLimit = 16;

JsonValue outOfMemory() {
    return makeErrorResponse(genericError, "out of memory");
}

JsonValue answerLine(RequestLine line) {
    try {
        JsonOutcome outcome = readJson(std::move(line));
        if (const auto* error = std::get_if<JsonError>(&outcome)) {
            logStatus(false, "Cannot parse the request as JSON: %s\n", error->description.c_str());
            return makeErrorResponse(genericError, "invalid JSON");
        }
        return dispatchRequest(std::get<JsonValue>(outcome));
    } catch (const std::bad_alloc&) {
        return outOfMemory();
    }
}

std::string serialise(const JsonValue& response, bool delimited) {
    const char* prefix = delimited ? "\xFF" : "";
    try {
        return writeJson(response, prefix, "\n");
    } catch (const std::bad_alloc&) {
        return writeJson(outOfMemory(), prefix, "\n");
    }
}

/// Returns the size of what was sent.
std::size_t sendResponse(const JsonValue& response) {
    const std::string output = serialise(response, std::exchange(delimiterPending, false));
    platform().channelDevice.send(channelDescriptor(), output);
    return output.size();
}

std::size_t sizeOf(const RequestLine& line) {
    std::size_t size = 0;
    for (const InputSlice& slice : line) {
        size += slice.bytes().size();
    }
    return size;
}

/// The name of the type of the exception that is being handled.
std::string exceptionName() {
    const std::type_info* type = abi::__cxa_current_exception_type();
    if (!type) {
        return "unknown";
    }
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), std::free);
    return name ? name.get() : type->name();
}

void endOnException(const char* reason) {
    const std::string text = "Error " + exceptionName() + ": " + reason;
    logStatus(true, "Unhandled exception: '%s'\n", text.c_str());
}

}  // namespace

void setDelimiterPending(bool pending) noexcept {
    delimiterPending = pending;
}

void ReadLoop::run() {
    for (;;) {
        try {
            pass();
        } catch (const std::exception& exception) {
            endOnException(exception.what());
        } catch (...) {
            endOnException("no reason given");
        }
    }
}

void ReadLoop::pass() {
    const ssize_t received = platform().channelDevice.receive(channelDescriptor(), readBuffer_);
    if (received <= 0) {
        followEndedChannel();
        return;
    }
    silentChannels_ = 0;
    takeInput({readBuffer_.data(), static_cast<std::size_t>(received)});
    while (auto line = pending_.takeLine()) {
        if (line->empty()) {
            continue;
        }
        const std::size_t lineSize = sizeOf(*line);
        const std::size_t responseSize = sendResponse(answerLine(std::move(*line)));
        line.reset();
        if (lineSize >= largeMessage || responseSize >= largeMessage) {
            trimHeap();
        }
    }
}

void ReadLoop::followEndedChannel() {
    logStatus(false, "The connection has ended.\n");
    if (++silentChannels_ > silentChannelLimit) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    reopenChannel();
}

void ReadLoop::takeInput(std::span<const char> bytes) {
    try {
        pending_.append(bytes);
    } catch (const std::bad_alloc&) {
        // Only an unfinished line can be pending here. Without it there is room for this answer and
        // for what follows the line.
        pending_.abandonLine();
        trimHeap();
        sendResponse(outOfMemory());
        pending_.append(bytes);
    }
}

}  // namespace corvane
