#pragma once

#include <sys/types.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

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

/// How long anything may take before it is called a hang.
inline constexpr Limit faultPatience = hangLimit;

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
    /// Ends the connection with the peer, if there is one.
    void closePeer();

    /// How the next request is expected to come out. What cannot be told from a hang by itself is
    /// looked for: `noAnswer`, and `connectionEnded`, when what the host has sent is lost.
    void expect(std::string outcome) { expected_ = std::move(outcome); }

    /// What the agent returns. Throws Deviation with the description of an error, or with the
    /// outcome that was expected.
    boost::json::value ask(std::string_view command, const Arguments& arguments = {});

    /// Connects a new host; the old one, if any, has left before.
    void connect();
    /// A new host in the place of the old one, whose leaving the agent has noticed.
    void replaceHost();
    /// The host leaves.
    void disconnect();
    /// Waits until a process of the guest is there no more.
    void awaitEndOf(pid_t process);

 private:
    VirtualMachine& machine_;
    FaultTracer tracer_;
    std::unique_ptr<HostClient> host_;
    std::unique_ptr<VsockPeer> peer_;
    std::string expected_;
};

}  // namespace corvane::vm
