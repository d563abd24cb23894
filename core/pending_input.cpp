// The search for the end of a line must not be repeated: a host may send a line of any length in
// pieces of any size, and one piece may hold thousands of lines or reset markers. So slices that
// were searched in vain are counted, a cut always leaves its remainder as the first slice, and of
// several markers before a line feed only the last is acted on.

#include "core/pending_input.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace corvane {

namespace {

constexpr int lineFeed = '\n';
constexpr int resetMarker = 0xFF;

/// How many bytes lie before the first line feed; all of them without one.
std::size_t countBeforeLineFeed(std::string_view bytes) noexcept {
    const void* found = std::memchr(bytes.data(), lineFeed, bytes.size());
    return found == nullptr
               ? bytes.size()
               : static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data());
}

/// How many bytes the last reset marker discards, itself included; none without one.
std::size_t countDiscarded(std::string_view bytes) noexcept {
    const void* found = ::memrchr(bytes.data(), resetMarker, bytes.size());
    return found == nullptr
               ? 0
               : static_cast<std::size_t>(static_cast<const char*>(found) - bytes.data()) + 1;
}

/// The position of the first byte that ends a line given up; npos without one.
std::size_t findEndOfAbandoned(std::string_view bytes) noexcept {
    return bytes.find_first_of("\n\xFF");
}

}  // namespace

InputSlice InputSlice::copyOf(std::span<const char> bytes) {
    auto storage = std::make_shared_for_overwrite<char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), storage.get());
    InputSlice slice;
    slice.bytes_ = {storage.get(), bytes.size()};
    slice.storage_ = std::move(storage);
    return slice;
}

InputSlice InputSlice::splitFront(std::size_t count) noexcept {
    InputSlice front;
    front.storage_ = storage_;
    front.bytes_ = bytes_.substr(0, count);
    bytes_.remove_prefix(front.bytes_.size());
    return front;
}

std::size_t sizeOf(const RequestLine& line) noexcept {
    std::size_t size = 0;
    for (const InputSlice& slice : line) {
        size += slice.bytes().size();
    }
    return size;
}

void PendingInput::append(std::span<const char> bytes) {
    if (abandoning_) {
        const std::size_t end = findEndOfAbandoned({bytes.data(), bytes.size()});
        if (end == std::string_view::npos) {
            return;
        }
        bytes = bytes.subspan(end + 1);
    }
    if (!bytes.empty()) {
        slices_.push_back(InputSlice::copyOf(bytes));
        size_ += bytes.size();
    }
    abandoning_ = false;
}

std::optional<RequestLine> PendingInput::takeLine() {
    while (scannedSlices_ < slices_.size()) {
        const std::string_view bytes = slices_[scannedSlices_].bytes();
        const std::size_t lineEnd = countBeforeLineFeed(bytes);
        const std::size_t discarded = countDiscarded(bytes.substr(0, lineEnd));
        if (discarded > 0) {
            dropFront(discarded);
        }
        if (lineEnd < bytes.size()) {
            return cutLine(lineEnd - discarded);
        }
        if (discarded < bytes.size()) {
            ++scannedSlices_;
        }
    }
    return std::nullopt;
}

bool PendingInput::abandonLine() noexcept {
    while (scannedSlices_ < slices_.size()) {
        const std::size_t end = findEndOfAbandoned(slices_[scannedSlices_].bytes());
        if (end != std::string_view::npos) {
            dropFront(end + 1);
            return true;
        }
        ++scannedSlices_;
    }
    slices_.clear();
    scannedSlices_ = 0;
    size_ = 0;
    return !std::exchange(abandoning_, true);
}

/// Drops the searched slices and `count` bytes, at least one, of the slice behind them.
void PendingInput::dropFront(std::size_t count) noexcept {
    for (; scannedSlices_ > 0; --scannedSlices_) {
        size_ -= slices_.front().bytes().size();
        slices_.pop_front();
    }
    slices_.front().splitFront(count);
    size_ -= count;
    if (slices_.front().bytes().empty()) {
        slices_.pop_front();
    }
}

/// Takes the searched slices and `count` bytes of the slice behind them, and drops the line feed
/// that follows. All memory is taken before anything is moved.
RequestLine PendingInput::cutLine(std::size_t count) {
    RequestLine line(scannedSlices_ + (count > 0 ? 1 : 0));
    const auto whole = slices_.begin() + static_cast<std::ptrdiff_t>(scannedSlices_);
    auto next = std::copy(slices_.begin(), whole, line.begin());
    if (count > 0) {
        *next = whole->splitFront(count);
        size_ -= count;
    }
    dropFront(1);
    return line;
}

}  // namespace corvane
