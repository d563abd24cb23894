#pragma once

#include "core/json_value.h"

namespace corvane {

/// Which way a transfer goes.
enum class TransferDirection { hostToGuest = 0, guestToHost = 1 };

/// Copies between the file of a stream, from where its descriptor stands, and a listener of the
/// host on a vsock port, until whichever is read has nothing more. The stream itself knows nothing
/// of it: neither its buffer nor its position and end-of-file indicator take part.
///
/// Main thread, which waits for the end: a listener that neither sends nor closes holds the agent.
JsonValue handleGuestFileVSockReadWrite(const JsonObject* arguments, TransferDirection direction);

/// "mirel-guest-file-vsock-read": sends a file to the host.
JsonValue handleGuestFileVSockRead(const JsonObject* arguments);

/// "mirel-guest-file-vsock-write": writes to a file what the host sends.
JsonValue handleGuestFileVSockWrite(const JsonObject* arguments);

}  // namespace corvane
