#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "core/json_value.h"
#include "core/pending_input.h"

namespace corvane {

/// Asks the writer to put the byte 0xFF before the next response, or takes that back. Main thread.
void setDelimiterPending(bool pending) noexcept;

/// Reads requests from the channel, has them answered one at a time and in order, and reopens the
/// channel when it ends. Its state but for the channel survives that: unconsumed input is put
/// before what the next connection sends. Main thread.
class ReadLoop {
 public:
    ReadLoop();

    /// Runs for the life of the process. An exception that escapes ends it with status 1.
    [[noreturn]] void run();

    /// One pass: waits for input once and answers every line that is complete then.
    void pass();

 private:
    using Clock = std::chrono::steady_clock;

    ssize_t receive();
    void giveMemoryBack();
    void followEndedChannel();
    void takeInput(std::span<const char> bytes);
    std::optional<RequestLine> nextLine();
    void giveUpLine();
    void answer(RequestLine line);
    static std::size_t send(const JsonValue& response);
    static std::size_t sendLine(const JsonValue& response);
    void sendOutOfMemory() noexcept;

    std::array<char, 8192> readBuffer_{};
    PendingInput pending_;

    /// Made beforehand: the answer when there is no memory for another, between delimiter and line
    /// feed.
    const std::string outOfMemoryLine_;

    bool heapMayHaveGrown_ = false;  ///< by input, since it was trimmed
    bool moreIsLikely_ = false;      ///< the last input has filled the buffer
    Clock::time_point trimmedAt_ = Clock::now();

    Clock::time_point openedAt_ = Clock::now();
    bool channelIsSilent_ = true;  ///< has brought no byte yet
    int silentChannels_ = 0;       ///< in a row, each ended within a second in silence
};

}  // namespace corvane
