#pragma once

#include <cstdint>

namespace corvane {

/// The path of the serial channel; a link to the virtio port that carries the agent's name.
inline constexpr char serialChannelPath[] = "/dev/tty.org.qemu.guest_agent.0";

/// The class of the driver that the serial channel must belong to.
inline constexpr char serialDriverClass[] = "MirelVirtIOConsole";

/// The boot argument, and the property of device-tree nodes, that publishes the vsock port.
inline constexpr char portPropertyKey[] = "mirel-guest-agent-port";

/// Nodes that may carry the property: the firmware's options (as text), the product (as binary).
inline constexpr char optionsNodePath[] = "/options";
inline constexpr char productNodePath[] = "/product";

/// The descriptor of the open channel, -1 before the first `openChannel`. Close-on-exec. Owned by
/// the process: only `openChannel` and the read loop replace and close it, on the main thread.
int channelDescriptor() noexcept;

/// Opens the channel: a vsock connection to the host when a port is published and the connection
/// succeeds, otherwise the serial device. Sets the channel descriptor or ends the process with
/// status 1. Does not close the descriptor that it replaces. Main thread.
void openChannel();

/// Lets go of a channel that has ended and opens it afresh.
void reopenChannel();

/// Reads the port property of the node at `path` into `port`: with `asText` as a decimal text
/// number, without it as a little-endian integer of at most 8 bytes. Returns 0, or 1 after logging
/// why it failed, `port` untouched.
int readPortProperty(const char* path, bool asText, std::uint64_t& port);

}  // namespace corvane
