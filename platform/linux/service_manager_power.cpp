#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "platform/linux/service_manager.h"
#include "platform/linux/service_manager_methods.h"
#include "platform/linux/system_bus.h"

namespace corvane {
namespace {

constexpr char loginName[] = "org.freedesktop.login1";

constexpr char loginObject[] = "/org/freedesktop/login1";
constexpr char loginInterface[] = "org.freedesktop.login1.Manager";

BusReply getLoginProperty(SystemBus& bus, const char* property) {
    return bus.call({loginName, loginObject, "org.freedesktop.DBus.Properties", "Get"}, "ss",
                    loginInterface, property);
}

bool isOnBus(SystemBus& bus, const char* name) {
    const BusReply reply = bus.call(
        {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner"},
        "s", name);
    int answer = 1;
    return !reply.ok() || sd_bus_message_read(reply.message.get(), "b", &answer) <= 0 ||
           answer != 0;
}

/// Whether an error means that the service manager itself is to be asked: login1 has not acted, and
/// has not refused for a reason of its own.
bool leavesItToTheServiceManager(SystemBus& bus, std::string_view error) {
    constexpr std::array notItsTask{
        std::string_view("org.freedesktop.DBus.Error.UnknownObject"),
        std::string_view("org.freedesktop.DBus.Error.UnknownInterface"),
        std::string_view("org.freedesktop.DBus.Error.UnknownMethod"),
        // Newer ones heed a program's wish to stay even against root. The host's order counts.
        std::string_view("org.freedesktop.login1.BlockedByInhibitorLock"),
    };
    if (std::ranges::find(notItsTask, error) != notItsTask.end()) {
        return true;
    }
    // The bus says the first when login1 has gone with the order: it may have carried it out.
    if (error == "org.freedesktop.DBus.Error.NoReply" ||
        error == "org.freedesktop.DBus.Error.AccessDenied") {
        return false;
    }
    // It is not installed, or cannot be started. There are many names for the latter: a masked one
    // is org.freedesktop.DBus.Error.FileExists on Debian 12.
    return !isOnBus(bus, loginName);
}

constexpr const char* targetOf(PowerAction action) noexcept {
    return action == PowerAction::powerOff ? "poweroff.target" : "reboot.target";
}

/// Whether the service manager is on its way to a target already: there is a job for it.
bool isUnderWay(SystemBus& bus, const char* target) {
    const BusReply reply = getUnitProperty(bus, target, "Job");
    std::uint32_t job = 0;
    const char* path = nullptr;
    return reply.ok() && sd_bus_message_read(reply.message.get(), "v", "(uo)", &job, &path) > 0 &&
           job != 0;
}

/// Whether the guest's run is being ended, in whatever way.
bool isStopping(SystemBus& bus) {
    const BusReply reply = getManagerProperty(bus, "SystemState");
    const char* state = nullptr;
    return reply.ok() && sd_bus_message_read(reply.message.get(), "v", "s", &state) > 0 &&
           std::string_view(state) == "stopping";
}

/// Whether login1 has taken up an action, and only waits for programs that it lets end their work.
bool isPrepared(SystemBus& bus, PowerAction action) {
    const BusReply preparing = getLoginProperty(bus, "PreparingForShutdown");
    int isPreparing = 0;
    if (!preparing.ok() ||
        sd_bus_message_read(preparing.message.get(), "v", "b", &isPreparing) <= 0 ||
        isPreparing == 0) {
        return false;
    }
    const BusReply scheduled = getLoginProperty(bus, "ScheduledShutdown");
    const char* kind = nullptr;
    std::uint64_t time = 0;
    return scheduled.ok() &&
           sd_bus_message_read(scheduled.message.get(), "v", "(st)", &kind, &time) > 0 &&
           std::string_view(kind) == (action == PowerAction::powerOff ? "poweroff" : "reboot");
}

bool startTarget(SystemBus& bus, const char* target) {
    // It would take up a restart beside a power-off, and nobody could tell which comes first.
    if (isStopping(bus)) {
        return isUnderWay(bus, target);
    }
    // As systemctl does it: no later order can keep the guest up.
    return bus.call(serviceManagerMethod("StartUnit"), "ss", target, "replace-irreversibly").ok();
}

}  // namespace

std::optional<bool> askServiceManager(const ServiceManager& manager, PowerAction action,
                                      std::chrono::milliseconds limit) {
    if (!manager.runs()) {
        return std::nullopt;
    }
    auto connected = SystemBus::connect(manager, std::chrono::steady_clock::now() + limit);
    if (!connected.ok()) {
        return false;
    }
    SystemBus& bus = connected.value();
    if (bus.isBus()) {
        const char* order = action == PowerAction::powerOff ? "PowerOff" : "Reboot";
        constexpr int notInteractive = 0;
        const BusReply reply =
            bus.call({loginName, loginObject, loginInterface, order}, "b", notInteractive);
        if (reply.errorName() == "org.freedesktop.login1.OperationInProgress") {
            // It ends the guest's run already, or puts it to sleep.
            return isPrepared(bus, action) || isUnderWay(bus, targetOf(action));
        }
        if (reply.ok() || !leavesItToTheServiceManager(bus, reply.errorName())) {
            return reply.ok();
        }
    }
    return startTarget(bus, targetOf(action));
}

}  // namespace corvane
