#pragma once

#include <functional>
#include <string>

namespace corvane {

/// Why `withPrivateNetwork` cannot work here, such as for want of privileges; "" when it can.
std::string whyNoPrivateNetwork();

/// Runs `body` in a child of its own network namespace, in which there is nothing but a loopback
/// interface that is down. Root needs no more; others get a user namespace, too. `body` returns
/// what it has to say; so does this, followed by what went wrong.
std::string withPrivateNetwork(const std::function<std::string()>& body);

// The rest is meant for a network namespace of the caller's own, and throws std::system_error when
// the kernel refuses.

/// Makes an interface that is down and stands for itself, with the hardware address
/// 02:00 and then the number. It gets no IPv6 address by itself.
void addInterface(const std::string& name, unsigned number);

/// Makes two such interfaces with a cable between them.
void addCable(const std::string& name, const std::string& otherName);

/// Makes an interface that is down and has no hardware address.
void addTunnel(const std::string& name);

/// Whether the kernel has tunnels, and lets us make them.
bool tunnelsAreKnown();

/// Whether the kernel has the kind of interfaces that addCable() makes.
bool cablesAreKnown();

void switchOn(const std::string& interface);
void switchOff(const std::string& interface);
void rename(const std::string& interface, const std::string& newName);

struct AddressExtras {
    std::string label;  ///< of an IPv4 address; the interface's name unless given
    std::string peer;   ///< the other end of a point-to-point address
};

/// Adds an IPv4 or IPv6 address, such as "10.0.0.1", with the length of its network's prefix.
void addAddress(const std::string& interface, const std::string& address, unsigned prefix,
                const AddressExtras& extras = {});

}  // namespace corvane
