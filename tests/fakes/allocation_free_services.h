#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/channel_device.h"
#include "platform/system_log.h"

namespace corvane {

/// Keeps every category, and allocates nothing itself: it remembers the last entry alone, and of
/// that the beginning.
class QuietLog final : public SystemLog {
 public:
    void createCategories(const char* /*identifier*/) override {}
    [[nodiscard]] bool records(LogCategory /*category*/) const override { return true; }
    void write(LogCategory /*category*/, std::string_view text) noexcept override {
        last = text.substr(0, buffer_.size());
        std::copy(last.begin(), last.end(), buffer_.begin());
        last = {buffer_.data(), last.size()};
    }

    std::string_view last;

 private:
    std::array<char, 256> buffer_{};
};

/// Gives its pieces one read after the other, and keeps what is sent in room made beforehand.
class PiecewiseDevice : public ChannelDevice {
 public:
    PiecewiseDevice() { sent.reserve(std::size_t{64} * 1024); }
    SystemResult<DescriptorGuard> openSerial(const char* /*path*/) override {
        return DescriptorGuard();
    }
    int claimExclusive(int /*descriptor*/) override { return 0; }
    int clearStatusFlags(int /*descriptor*/) override { return 0; }
    ssize_t receive(int /*descriptor*/, std::span<char> buffer, int /*patience*/) override {
        const std::string& piece = pieces.at(next++);
        std::copy(piece.begin(), piece.end(), buffer.begin());
        return static_cast<ssize_t>(piece.size());
    }
    void send(int /*descriptor*/, std::span<const std::string_view> parts) noexcept override {
        for (const std::string_view part : parts) {
            sent += part;
        }
    }
    void closeChannel(int /*descriptor*/) noexcept override {}

    std::vector<std::string> pieces;
    std::size_t next = 0;
    std::string sent;
};

}  // namespace corvane
