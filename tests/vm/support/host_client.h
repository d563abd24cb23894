#pragma once

#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"
#include "tests/vm/support/traffic_record.h"

namespace corvane::vm {

/// One host at the agent's channel.
class HostClient {
 public:
    /// Connects to QEMU's socket of the port. The agent need not be there yet.
    explicit HostClient(const std::string& socketPath) : socket_(socketPath) {}

    /// Brings both ends in step: resets the agent's pending input and skips everything that was
    /// meant for an earlier host, until the answer with an id of its own arrives.
    void synchronise(Limit limit = hangLimit);

    /// Sends one request line and returns the line that answers it, without line feeds.
    std::string request(std::string_view json, Limit limit = hangLimit);

    void send(std::string_view bytes);
    /// For requests so many that their answers must be taken in meanwhile.
    void sendWhileReceiving(std::string_view bytes);
    std::string receiveLine(Limit limit = hangLimit);
    std::string receive(std::size_t count) { return socket_.receive(count); }
    /// Whatever comes, at least one byte.
    std::string receiveSome() { return socket_.receiveSome(); }
    void disconnect() { socket_.disconnect(); }

    /// What is sent and received from now on is noted there; it must live longer.
    void recordIn(TrafficRecord& record) { record_ = &record; }

 private:
    LineSocket socket_;
    TrafficRecord* record_ = nullptr;
};

}  // namespace corvane::vm
