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
/// The beginning of an answer, and what was to follow it.
inline constexpr std::string_view cutAnswer = "cut answer";
inline constexpr std::string_view connectionEnded = "The connection has ended.";
inline constexpr std::string_view vsockEnded = "vsock connection ended";
/// Where a vsock channel was to be had, the agent is at the serial device.
inline constexpr std::string_view serialDevice = "serial device";

/// How the host and the agent of a guest meet.
enum class Channel {
    serial,           ///< at the virtio port; the guest publishes no vsock port
    vsockOfArgument,  ///< at the vsock port that a boot argument publishes
    vsockOfNode,      ///< at the vsock port that the firmware's node of options publishes
};

/// Boots a guest for a bench.
std::unique_ptr<VirtualMachine> bootFor(Channel channel);

/// A guest whose agent runs under the tracer, and a host at its channel.
class FaultBench {
 public:
    using Arguments = boost::json::object;

    /// Starts the agent. The guest is one that was booted for that channel.
    FaultBench(VirtualMachine& machine, Channel channel);

    VirtualMachine& machine() { return machine_; }
    GuestShell& shell() { return machine_.shell(); }
    FaultTracer& tracer() { return tracer_; }
    /// The peer of data connections, where the channel is serial.
    VsockPeer& peer();
    /// Ends the connection with the peer, if there is one.
    void closePeer();

    /// How the next request is expected to come out. What cannot be told from a hang by itself is
    /// looked for: `noAnswer`, `cutAnswer`, `serialDevice`, and `connectionEnded`, when what the
    /// host has sent is lost.
    void expect(std::string outcome) { expected_ = std::move(outcome); }

    /// What the agent returns. Throws Deviation with the description of an error, or with the
    /// outcome that was expected.
    boost::json::value ask(std::string_view command, const Arguments& arguments = {});

    /// Starts another agent, which finds a host at its channel.
    void startAgent(const InjectedFault* fault = nullptr);
    /// Waits until the host has an agent that was started, or that has lost its host, and serves
    /// them both from there on.
    void meetAgent();
    /// Both of them, as it is without a fault.
    void restart();
    /// A new host in the place of the old one, whose leaving the agent has noticed.
    void replaceHost();
    /// The host leaves.
    void disconnect();
    /// Waits until the agent at the serial device waits for a host, without a limit.
    void awaitWaitForHost();
    /// Waits until a process of the guest is there no more.
    void awaitEndOf(pid_t process);

 private:
    /// A new host at the serial device, in step with the agent.
    void connectSerially();
    [[noreturn]] void findAtSerialDevice();
    void send(std::string_view bytes);
    std::string receiveLine();

    VirtualMachine& machine_;
    FaultTracer tracer_;
    std::unique_ptr<VsockPeer> vsockHost_;  ///< where the channel is vsock
    std::unique_ptr<HostClient> host_;      ///< at the serial device, when the agent is there
    std::unique_ptr<VsockPeer> peer_;
    std::string expected_;
};

}  // namespace corvane::vm
