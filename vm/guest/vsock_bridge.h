#pragma once

namespace corvane::vm {

/// Lets the other end of the virtio port at `device` play the host at the vsock: it is told in
/// frames (bridge_frame.h) where to listen, and what goes over the one connection at a time.
/// Never ends, but for a device that fails.
[[noreturn]] void bridge(int device);

}  // namespace corvane::vm
