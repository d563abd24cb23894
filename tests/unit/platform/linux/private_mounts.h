#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/descriptor_guard.h"

namespace corvane {

/// Why `withPrivateMounts` cannot work here, such as for want of privileges; "" when it can.
std::string whyNoPrivateMounts();

/// Runs `body` in a child of its own mount namespace, in which the folders named are empty and
/// writable. `body` returns what is wrong, "" for nothing; so does this.
std::string withPrivateMounts(const std::vector<std::string>& folders,
                              const std::function<std::string()>& body);

/// A datagram socket bound to `path`, as the daemons of the system's logs have one.
DescriptorGuard bindDatagramSocket(const std::string& path);

/// What a datagram brought.
struct Datagram {
    std::string bytes;
    DescriptorGuard passed;  ///< a descriptor that came with it
};

/// Waits for the next datagram.
Datagram receiveDatagram(int socket);

/// Whether a datagram is there.
bool hasDatagram(int socket);

}  // namespace corvane
