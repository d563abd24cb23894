#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace corvane {

/// What the fuzzer gives: one byte that chooses how the rest is cut into pieces, and the rest.
class FuzzInput {
 public:
    explicit FuzzInput(std::span<const std::uint8_t> bytes) noexcept
        : text_(bytes.empty() ? std::string_view()
                              : std::string_view(reinterpret_cast<const char*>(bytes.data()) + 1,
                                                 bytes.size() - 1)),
          state_(bytes.empty() ? 0U : bytes.front()),
          longestPiece_(pieceSizes[state_ % std::size(pieceSizes)]) {}

    [[nodiscard]] std::string_view text() const noexcept { return text_; }

    /// Cuts the next piece off the front of `rest`, which must not be empty.
    std::string_view takePiece(std::string_view& rest) noexcept {
        const std::string_view piece = rest.substr(0, 1 + next() % longestPiece_);
        rest.remove_prefix(piece.size());
        return piece;
    }

    /// A number that depends on the first byte and on how many came before.
    std::size_t next() noexcept {
        state_ = state_ * 1664525U + 1013904223U;
        return state_ >> 16U;
    }

 private:
    static constexpr std::size_t pieceSizes[] = {1, 2, 3, 7, 16, 40, 128};

    std::string_view text_;
    std::uint32_t state_;
    std::size_t longestPiece_;
};

}  // namespace corvane
