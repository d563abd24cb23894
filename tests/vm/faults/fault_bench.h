#pragma once

#include <sys/types.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "tests/vm/faults/fault_tracer.h"
#include "tests/vm/support/virtual_machine.h"
#include "tests/vm/support/vsock_peer.h"

namespace corvane::vm {

/// A step of a scenario came out otherwise than without a fault; what() says how, in the words in
/// which it is expected.
struct Deviation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline constexpr std::string_view noAnswer = "no answer";
inline constexpr std::string_view connectionEnded = "The connection has ended.";

/// A guest whose agent runs under the tracer, and a host at its channel.
class FaultBench {
 public:
    using Arguments = boost::json::object;

    explicit FaultBench(VirtualMachine& machine);

    VirtualMachine& machine() { return machine_; }
    GuestShell& shell() { return machine_.shell(); }
    FaultTracer& tracer() { return tracer_; }
    HostClient& host() { return *host_; }
    VsockPeer& peer();

    /// The agent is expected to lose the channel and what the host has sent: `ask` waits for that
    /// instead of an answer.
    void expectEndOfConnection(bool expected) { connectionEnds_ = expected; }

    /// What the agent returns. Throws Deviation with the description of an error, with `noAnswer`
    /// when it answers the next request instead, and with `connectionEnded` when it was expected.
    boost::json::value ask(std::string_view command, const Arguments& arguments = {});
    /// Sends a request whose answer is taken later.
    void send(std::string_view command, const Arguments& arguments);
    boost::json::value receive();

    /// A new host in the place of the old one.
    void replaceHost();
    /// Waits until a process of the guest is there no more.
    void awaitEndOf(pid_t process);

 private:
    VirtualMachine& machine_;
    FaultTracer tracer_;
    std::unique_ptr<HostClient> host_;
    std::unique_ptr<VsockPeer> peer_;
    unsigned lastId_ = 0;
    bool connectionEnds_ = false;
};

}  // namespace corvane::vm
