#include "platform/linux/ssh_units.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/linux/service_manager_methods.h"

namespace corvane {
namespace {

struct Name {
    const char* name;
    bool isSocket;
};

// Debian's names come before those of most others. Sockets come first: a service that is stopped
// while its socket still listens starts again.
constexpr std::array names{Name{"ssh.socket", true}, Name{"sshd.socket", true},
                           Name{"ssh.service", false}, Name{"sshd.service", false}};

/// The state of a unit's file (see systemctl(1), is-enabled), borrowed from the reply. Empty where
/// there is no such unit.
std::string_view fileState(const BusReply& reply) noexcept {
    const char* state = nullptr;
    return reply.ok() && sd_bus_message_read(reply.message.get(), "s", &state) > 0 ? state : "";
}

bool mayBeSwitched(std::string_view state) noexcept {
    // Debian's sshd.service is an alias of ssh.service once that is enabled.
    return !state.empty() && state != "alias" && state != "bad" && !state.starts_with("masked");
}

bool isEnabled(std::string_view state) noexcept {
    return state == "enabled" || state == "enabled-runtime";
}

/// Whether a unit is up: listens, for a socket.
bool isActive(SystemBus& manager, const char* unit) {
    const BusReply reply = getUnitProperty(manager, unit, "ActiveState");
    const char* state = nullptr;
    return reply.ok() && sd_bus_message_read(reply.message.get(), "v", "s", &state) > 0 &&
           std::string_view(state) == "active";
}

}  // namespace

std::vector<SshUnit> findSshUnits(SystemBus& manager, std::size_t atMost) {
    std::vector<SshUnit> found;
    for (const Name& unit : names) {
        if (found.size() < atMost) {
            const BusReply reply =
                manager.call(serviceManagerMethod("GetUnitFileState"), "s", unit.name);
            const std::string_view state = fileState(reply);
            if (mayBeSwitched(state)) {
                found.push_back({unit.name, unit.isSocket, isEnabled(state)});
            }
        }
    }
    return found;
}

const SshUnit* unitToSwitchOn(SystemBus& manager, const std::vector<SshUnit>& units) {
    // Never both: Debian's ssh.socket and ssh.service shut each other out.
    const auto inUse = std::ranges::find_if(units, [&](const SshUnit& unit) {
        return unit.isSocket && (unit.isEnabled || isActive(manager, unit.name));
    });
    if (inUse != units.end()) {
        return &*inUse;
    }
    const auto service = std::ranges::find(units, false, &SshUnit::isSocket);
    if (service != units.end()) {
        return &*service;
    }
    return units.empty() ? nullptr : &units.front();
}

}  // namespace corvane
