#pragma once

#include <sys/socket.h>

namespace corvane {

/// Connects a socket and waits for the outcome, as long as the kernel does. A signal does not end
/// the wait. The socket's status flags are as before when it returns. Returns 0 or an errno value.
int connectToTheEnd(int descriptor, const sockaddr* address, socklen_t length);

}  // namespace corvane
