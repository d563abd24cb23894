#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tests/vm/support/line_socket.h"
#include "vm/guest/bridge_frame.h"

namespace corvane::vm {

class VirtualMachine;

/// The host at the guest's vsock, one connection at a time. Played by a helper in the guest
/// (vm/guest/vsock_bridge.h), and by this object through a port of its own. Every operation throws
/// on failure.
class VsockPeer {
 public:
    /// The guest must have been booted with `vsockLoopback`. One object serves for its whole life.
    explicit VsockPeer(VirtualMachine& machine);

    /// Listens, and then ends what was: at the same port an agent that connects anew succeeds.
    /// Returns the port, another one each time and above 65535.
    unsigned listen();
    void listen(unsigned port);
    /// Waits until the agent has connected.
    void awaitConnection();

    /// Sends all bytes and takes in what comes meanwhile.
    void send(std::string_view bytes);
    /// Nothing more will be sent; what comes is still received.
    void finishSending();
    /// Vanishes with listener and connection. Bytes not yet delivered to the agent are lost.
    void close();

    /// The text up to and with `text`, which is thereby taken; throws HangError, with what has
    /// come instead, when it does not come.
    std::string await(std::string_view text, Limit limit = hangLimit);
    /// Exactly so many bytes.
    std::string receive(std::size_t count, Limit limit = hangLimit);
    /// Everything up to the end of the connection, which must be a clean one.
    std::string receiveAll(Limit limit = hangLimit);

 private:
    void forget();
    void sendFrame(FrameKind kind, std::string_view payload = {});
    Frame receiveFrame(Limit limit);
    /// Takes in one frame of data, or the end; throws EndOfStream after that.
    void receiveMore(Limit limit);

    LineSocket socket_;
    FrameReader frames_;
    std::string received_;
    std::optional<std::string> end_;  // empty text: a clean end
    unsigned nextPort_ = 70000;
};

}  // namespace corvane::vm
