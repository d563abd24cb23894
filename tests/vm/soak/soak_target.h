#pragma once

#include <string>

#include "tests/vm/support/host_client.h"
#include "tests/vm/support/vsock_peer.h"

namespace corvane::vm {

/// Where the agent is that is to bear a load.
class SoakTarget {
 public:
    SoakTarget() = default;
    SoakTarget(const SoakTarget&) = delete;
    SoakTarget& operator=(const SoakTarget&) = delete;
    virtual ~SoakTarget() = default;

    /// A new host at the agent's channel. The one before must have left.
    virtual HostClient connectHost() = 0;
    /// Whether the agent gets all that a host has sent, however soon after it the host leaves.
    [[nodiscard]] virtual bool channelLosesNothing() const = 0;
    /// Asked for each host that is to leave with answers unread, or with more of them than a socket
    /// takes: whether the channel bears another one.
    virtual bool mayLeaveUnread() = 0;
    virtual bool mayLeaveMuchUnread() = 0;
    /// The output of a shell command beside the agent, without a final line feed. $agent is its
    /// process id. Throws when the command fails.
    virtual std::string shell(const std::string& command) = 0;
    /// How many processes there are that may be the agent's doing, and how many of these are ended
    /// ones that nobody has reaped, whoever their parent is.
    virtual std::string processes() = 0;
    virtual std::string zombies() = 0;
    /// Where the agent keeps what programs write.
    [[nodiscard]] virtual std::string captureDirectory() const = 0;
    /// The host at the vsock, or null where there is none.
    virtual VsockPeer* vsockPeer() = 0;
    /// A user other than root.
    [[nodiscard]] virtual std::string user() const = 0;
};

}  // namespace corvane::vm
