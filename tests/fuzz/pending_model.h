#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// The rule of lines and reset markers over one string, as plainly as it can be said.
class PendingModel {
 public:
    void append(std::string_view bytes) {
        pending_ += bytes;
        if (abandoning_) {
            abandonLine();
        }
    }

    std::optional<std::string> takeLine() {
        const std::size_t end = pending_.find_first_of("\n\xFF");
        if (end == std::string::npos) {
            return std::nullopt;
        }
        const bool isLine = pending_[end] == '\n';
        const std::string line = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        return isLine ? line : takeLine();
    }

    /// False when it had been given up before.
    bool abandonLine() {
        const bool wasAbandoning = abandoning_;
        const std::size_t end = pending_.find_first_of("\n\xFF");
        abandoning_ = end == std::string::npos;
        pending_.erase(0, abandoning_ ? end : end + 1);
        return !wasAbandoning;
    }

    void endAbandonedLine() noexcept { abandoning_ = false; }

    [[nodiscard]] std::size_t size() const noexcept { return pending_.size(); }

 private:
    std::string pending_;
    bool abandoning_ = false;
};

}  // namespace corvane
