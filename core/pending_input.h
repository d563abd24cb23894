#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace corvane {

/// A run of received bytes. Slices of one read share its storage.
class InputSlice {
 public:
    /// Copies `bytes` into storage of its own. Throws std::bad_alloc.
    static InputSlice copyOf(std::span<const char> bytes);

    [[nodiscard]] std::string_view bytes() const noexcept { return bytes_; }

    /// Cuts off and returns the first `count` bytes; the rest stays here.
    InputSlice splitFront(std::size_t count) noexcept;

 private:
    std::shared_ptr<const char[]> storage_;
    std::string_view bytes_;
};

/// One request line: the slices that it spans, in order, without its line feed.
/// A vector, since moving one takes no memory that could be wanting.
using RequestLine = std::vector<InputSlice>;

/// How many bytes the line has.
std::size_t sizeOf(const RequestLine& line) noexcept;

/// The bytes that came from the host and are not consumed yet: slices linked in the order of the
/// reads, never merged, never bounded. Outlives the loss of a channel. One thread.
class PendingInput {
 public:
    /// Links a copy of `bytes` to the end. Throws std::bad_alloc and is as before then.
    void append(std::span<const char> bytes);

    /// Cuts off the next line. A 0xFF byte discards everything before it, itself included.
    /// Empty when no line is complete; a line without bytes has no slices. Searches each byte once,
    /// however often it is called. Throws std::bad_alloc and can be called again then.
    std::optional<RequestLine> takeLine();

    /// Gives up the first line: drops what is here, and what comes, up to and including the next
    /// line feed or 0xFF. For a line that memory can't hold. False when it had been given up
    /// before.
    bool abandonLine() noexcept;

    /// What comes next is of a line of its own: the one that sent a line given up is gone.
    void endAbandonedLine() noexcept { abandoning_ = false; }

    [[nodiscard]] std::size_t size() const noexcept { return size_; }

 private:
    void dropFront(std::size_t count) noexcept;
    RequestLine cutLine(std::size_t count);

    std::deque<InputSlice> slices_;
    std::size_t scannedSlices_ = 0;  ///< slices at the front known to hold no line feed and no 0xFF
    std::size_t size_ = 0;
    bool abandoning_ = false;
};

}  // namespace corvane
