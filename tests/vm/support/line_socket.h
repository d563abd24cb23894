#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/vm/support/descriptor.h"

namespace corvane::vm {

using Limit = std::chrono::milliseconds;

/// How long anything may take before a test calls it hung. Generous: emulated guests on a loaded
/// machine are slow, and no test measures time with it.
inline constexpr Limit hangLimit = std::chrono::seconds(60);

/// What was awaited did not come within its limit.
struct HangError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The peer ended the connection.
struct EndOfStream : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// One connection to a Unix stream socket, read by lines or by counts of bytes. Every operation
/// throws on failure.
class LineSocket {
 public:
    LineSocket() = default;
    /// Connects to the socket at `path`.
    explicit LineSocket(const std::string& path);
    /// Waits for a connection to `listener`.
    static LineSocket acceptFrom(const Descriptor& listener, Limit limit = hangLimit);

    /// Sends all bytes; throws HangError when the peer has taken nothing for `limit`.
    void send(std::string_view bytes, Limit limit = hangLimit);
    /// The next line without its line feed.
    std::string receiveLine(Limit limit = hangLimit);
    /// Exactly `count` bytes.
    std::string receive(std::size_t count, Limit limit = hangLimit);
    /// Whatever has been received, at least one byte.
    std::string receiveSome(Limit limit = hangLimit);
    /// Everything up to the end of the connection.
    std::string receiveAll(Limit limit = hangLimit);
    /// Sends nothing more.
    void finishSending();
    /// Sends all bytes, and takes in what the peer sends meanwhile, so that neither end waits for
    /// the other; what came in is there for the next receive.
    void sendWhileReceiving(std::string_view bytes, Limit limit = hangLimit);
    /// Drops what has been received and not been taken.
    void dropReceived() { received_.clear(); }

    bool isConnected() const { return socket_.isOpen(); }
    void disconnect();

 private:
    void sendSome(std::string_view& bytes);
    void receiveMore(Limit limit);

    Descriptor socket_;
    std::string received_;
};

/// A listening Unix stream socket at `path`, ready for connections when this returns.
Descriptor listenAt(const std::string& path);

}  // namespace corvane::vm
