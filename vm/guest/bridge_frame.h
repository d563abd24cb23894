#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::vm {

/// What a frame on the bridge's port says. A port can't be closed in one direction, nor does its
/// host see the guest close it: so both are said in frames.
enum class FrameKind : char {
    listen = 'L',     ///< from the host, a port in decimal: listen there, then end what was
    finish = 'S',     ///< from the host: nothing more will be sent
    close = 'C',      ///< from the host: the listener and the connection vanish
    data = 'D',       ///< in both directions
    listening = 'l',  ///< answers `listen`
    accepted = 'a',   ///< the agent has connected
    ended = 'e',      ///< the agent's end has sent its last byte; an error's text, or nothing
    closed = 'c',     ///< answers `close`
    failed = 'f',     ///< answers a `listen` that failed, with the error's text
};

struct Frame {
    FrameKind kind = FrameKind::data;
    std::string payload;
};

/// One byte for the kind and four for the payload's length, the lowest first.
inline constexpr std::size_t frameHeaderSize = 5;
/// No frame of data is longer.
inline constexpr std::size_t largestPayload = 65536;

inline std::string encodeFrame(FrameKind kind, std::string_view payload = {}) {
    std::string frame(1, static_cast<char>(kind));
    for (unsigned shift = 0; shift < 32; shift += 8) {
        frame.push_back(static_cast<char>((payload.size() >> shift) & 255));
    }
    return frame.append(payload);
}

/// Cuts what is received into frames.
class FrameReader {
 public:
    void add(std::string_view bytes) { received_.append(bytes); }

    /// The next frame, when all of it is there.
    std::optional<Frame> next() {
        if (received_.size() < frameHeaderSize) {
            return std::nullopt;
        }
        std::size_t length = 0;
        for (std::size_t index = frameHeaderSize; index-- > 1;) {
            length = length << 8 | static_cast<std::uint8_t>(received_[index]);
        }
        if (received_.size() < frameHeaderSize + length) {
            return std::nullopt;
        }
        Frame frame{FrameKind{received_[0]}, received_.substr(frameHeaderSize, length)};
        received_.erase(0, frameHeaderSize + length);
        return frame;
    }

 private:
    std::string received_;
};

}  // namespace corvane::vm
