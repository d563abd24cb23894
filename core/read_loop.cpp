#include "core/read_loop.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>

#include "core/channel.h"
#include "core/dispatcher.h"
#include "core/heap.h"
#include "core/json_reader.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "core/unhandled_exception.h"
#include "platform/channel_device.h"
#include "platform/platform.h"

namespace corvane {

namespace {

bool delimiterPending = false;

/// After so long without a request, memory that earlier ones have taken goes back.
constexpr int idleMilliseconds = 100;

/// It does so, too, after so long with requests.
constexpr std::chrono::seconds trimInterval{1};

constexpr char delimiter[] = "\xFF";

/// So many channels may end in a row, each in silence and within a second, before reopening slows
/// down to one a second: a listener that hangs up on every connection must not keep the processor
/// busy.
constexpr int silentChannelLimit = 16;
constexpr std::chrono::seconds silentChannelSpan{1};

JsonValue answerTo(RequestLine line) {
    JsonOutcome outcome = readJson(std::move(line));
    if (const auto* error = std::get_if<JsonError>(&outcome)) {
        logStatus(false, "Cannot parse the request as JSON: %s\n", error->description.c_str());
        return makeErrorResponse(genericError, "invalid JSON");
    }
    return dispatchRequest(std::get<JsonValue>(outcome));
}

}  // namespace

void setDelimiterPending(bool pending) noexcept {
    delimiterPending = pending;
}

ReadLoop::ReadLoop()
    : outOfMemoryLine_(writeJson(makeErrorResponse(genericError, outOfMemory), "", "\n")) {}

void ReadLoop::run() {
    try {
        for (;;) {
            pass();
        }
    } catch (...) {
        endOnUnhandledException();
    }
}

void ReadLoop::pass() {
    const ssize_t received = receive();
    if (received <= 0) {
        followEndedChannel();
        return;
    }
    channelIsSilent_ = false;
    heapMayHaveGrown_ = true;
    moreIsLikely_ = static_cast<std::size_t>(received) == readBuffer_.size();
    takeInput({readBuffer_.data(), static_cast<std::size_t>(received)});
    while (auto line = nextLine()) {
        if (!line->empty()) {
            answer(std::move(*line));
        }
    }
}

/// Large messages come in numbers: the next one uses the memory of the one before. It goes back
/// when nothing has come for a moment, when the host is gone, and now and then while it goes on
/// asking.
ssize_t ReadLoop::receive() {
    ChannelDevice& device = platform().channelDevice;
    if (heapMayHaveGrown_ && (moreIsLikely_ || Clock::now() < trimmedAt_ + trimInterval)) {
        const ssize_t received = device.receive(channelDescriptor(), readBuffer_, idleMilliseconds);
        if (received > 0) {
            return received;
        }
        const bool ended = received == 0 || errno != EAGAIN;
        giveMemoryBack();
        if (ended) {
            return received;
        }
    }
    if (heapMayHaveGrown_) {
        giveMemoryBack();
    }
    return device.receive(channelDescriptor(), readBuffer_);
}

void ReadLoop::giveMemoryBack() {
    trimHeap();
    heapMayHaveGrown_ = false;
    trimmedAt_ = Clock::now();
}

void ReadLoop::followEndedChannel() {
    logStatus(false, "The connection has ended.\n");
    pending_.endAbandonedLine();
    const auto spanEnd = openedAt_ + silentChannelSpan;
    const bool endedAtOnce = channelIsSilent_ && Clock::now() < spanEnd;
    silentChannels_ = endedAtOnce ? silentChannels_ + 1 : 0;
    if (silentChannels_ > silentChannelLimit) {
        std::this_thread::sleep_until(spanEnd);
    }
    reopenChannel();
    openedAt_ = Clock::now();
    channelIsSilent_ = true;
}

void ReadLoop::takeInput(std::span<const char> bytes) {
    try {
        pending_.append(bytes);
    } catch (const std::bad_alloc&) {
        // Only an unfinished line can be pending here. Without it there is room for what follows.
        giveUpLine();
        pending_.append(bytes);
    }
}

std::optional<RequestLine> ReadLoop::nextLine() {
    for (;;) {
        try {
            return pending_.takeLine();
        } catch (const std::bad_alloc&) {
            giveUpLine();
        }
    }
}

void ReadLoop::giveUpLine() {
    const bool isUnanswered = pending_.abandonLine();
    trimHeap();
    if (isUnanswered) {
        sendOutOfMemory();
    }
}

void ReadLoop::answer(RequestLine line) {
    std::size_t largest = sizeOf(line);
    try {
        largest = std::max(largest, send(answerTo(std::move(line))));
    } catch (const std::bad_alloc&) {
        sendOutOfMemory();
    }
    if (largest >= hugeMessage) {
        trimHeap();
    }
}

/// What a response tells of has been done, a program started or a file opened, and only the
/// response has its number: it is not given up at the first try.
std::size_t ReadLoop::send(const JsonValue& response) {
    try {
        return sendLine(response);
    } catch (const std::bad_alloc&) {
        trimHeap();
    }
    return sendLine(response);
}

/// Returns how long the line is.
std::size_t ReadLoop::sendLine(const JsonValue& response) {
    const JsonLine output(response, delimiterPending ? delimiter : "", "\n");
    delimiterPending = false;
    platform().channelDevice.send(channelDescriptor(), output.pieces());
    return output.size();
}

/// The marker is for a success: a request that failed has not asked for it.
void ReadLoop::sendOutOfMemory() noexcept {
    delimiterPending = false;
    platform().channelDevice.send(channelDescriptor(), outOfMemoryLine_);
}

}  // namespace corvane
