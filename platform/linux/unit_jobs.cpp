#include "platform/linux/unit_jobs.h"

#include <cstdint>

#include "platform/linux/service_manager_methods.h"

namespace corvane {

UnitJobs::UnitJobs(SystemBus& manager) : manager_(manager) {
    if (manager.isBus()) {
        constexpr char rule[] =
            "type='signal',sender='org.freedesktop.systemd1',path='/org/freedesktop/systemd1',"
            "interface='org.freedesktop.systemd1.Manager',member='JobRemoved'";
        static_cast<void>(manager.call(
            {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "AddMatch"},
            "s", rule));
    }
    static_cast<void>(manager.call(serviceManagerMethod("Subscribe"), ""));
}

void UnitJobs::enqueue(const char* method, const char* unit) {
    const BusReply reply = manager_.call(serviceManagerMethod(method), "ss", unit, "replace");
    const char* job = nullptr;
    if (reply.ok() && sd_bus_message_read(reply.message.get(), "o", &job) > 0) {
        pending_.emplace_back(job);
    }
}

void UnitJobs::await() {
    while (!pending_.empty()) {
        const BusMessage message = manager_.awaitMessage();
        if (message == nullptr) {
            return;
        }
        std::uint32_t id = 0;
        const char* job = nullptr;
        if (sd_bus_message_is_signal(message.get(), "org.freedesktop.systemd1.Manager",
                                     "JobRemoved") > 0 &&
            sd_bus_message_read(message.get(), "uo", &id, &job) > 0) {
            std::erase(pending_, job);
        }
    }
}

}  // namespace corvane
