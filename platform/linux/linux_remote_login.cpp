#include "platform/linux/linux_remote_login.h"

#include <cstdint>
#include <vector>

#include "platform/linux/service_manager_methods.h"
#include "platform/linux/ssh_units.h"
#include "platform/linux/system_bus.h"
#include "platform/linux/unit_jobs.h"

namespace corvane {
namespace {

constexpr char polkitName[] = "org.freedesktop.PolicyKit1";

/// A ping that every D-Bus service answers. The bus starts the service for it where it can.
bool answers(SystemBus& bus, const char* service) {
    return bus.call({service, "/", "org.freedesktop.DBus.Peer", "Ping"}, "").ok();
}

/// Whether polkit lets us do something, without asking anybody.
bool polkitLetsUs(SystemBus& bus, const char* action) {
    constexpr std::uint32_t noFlags = 0;
    constexpr int oneDetailOfTheSubject = 1;
    constexpr int noDetails = 0;
    const BusReply reply = bus.call({polkitName, "/org/freedesktop/PolicyKit1/Authority",
                                     "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization"},
                                    "(sa{sv})sa{ss}us", "system-bus-name", oneDetailOfTheSubject,
                                    "name", "s", bus.uniqueName(), action, noDetails, noFlags, "");
    int isAuthorised = 0;
    int couldBe = 0;
    return reply.ok() && sd_bus_message_enter_container(reply.message.get(), 'r', "bba{ss}") > 0 &&
           sd_bus_message_read(reply.message.get(), "bb", &isAuthorised, &couldBe) > 0 &&
           isAuthorised != 0;
}

SystemBus::TimePoint after(std::chrono::milliseconds limit) {
    return std::chrono::steady_clock::now() + limit;
}

// What the server does now comes first: a service manager that takes long to read all its units
// anew must not leave it as it was.

void switchOn(SystemBus& manager, const std::vector<SshUnit>& units) {
    const SshUnit* unit = unitToSwitchOn(manager, units);
    if (unit == nullptr) {
        return;
    }
    constexpr int persistently = 0;
    constexpr int notByForce = 0;
    UnitJobs jobs(manager);
    jobs.start(unit->name);
    static_cast<void>(manager.call(serviceManagerMethod("EnableUnitFiles"), "asbb", 1, unit->name,
                                   persistently, notByForce));
    static_cast<void>(manager.call(serviceManagerMethod("Reload"), ""));
    jobs.await();
}

void switchOff(SystemBus& manager, const std::vector<SshUnit>& units) {
    constexpr int persistently = 0;
    UnitJobs jobs(manager);
    for (const SshUnit& unit : units) {
        jobs.stop(unit.name);
    }
    for (const SshUnit& unit : units) {
        static_cast<void>(manager.call(serviceManagerMethod("DisableUnitFiles"), "asb", 1,
                                       unit.name, persistently));
    }
    static_cast<void>(manager.call(serviceManagerMethod("Reload"), ""));
    jobs.await();
}

}  // namespace

bool LinuxRemoteLogin::isAvailable() {
    if (!manager_.runs()) {
        return false;
    }
    auto bus = SystemBus::connect(manager_, after(limits_.isAvailable));
    return bus.ok() && !findSshUnits(bus.value(), 1).empty() &&
           (isRoot_ || (bus.value().isBus() && answers(bus.value(), polkitName)));
}

bool LinuxRemoteLogin::authorise() {
    if (!manager_.runs()) {
        return false;
    }
    auto bus = SystemBus::connect(manager_, after(limits_.authorise));
    if (!bus.ok() || !answers(bus.value(), serviceManagerName)) {
        return false;
    }
    return isRoot_ || (bus.value().isBus() &&
                       polkitLetsUs(bus.value(), "org.freedesktop.systemd1.manage-unit-files") &&
                       polkitLetsUs(bus.value(), "org.freedesktop.systemd1.manage-units"));
}

void LinuxRemoteLogin::setEnabled(bool enabled) {
    if (!manager_.runs()) {
        return;
    }
    auto bus = SystemBus::connect(manager_, after(limits_.setEnabled));
    if (bus.ok()) {
        const std::vector<SshUnit> units = findSshUnits(bus.value());
        enabled ? switchOn(bus.value(), units) : switchOff(bus.value(), units);
    }
}

}  // namespace corvane
