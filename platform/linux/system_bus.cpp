#include "platform/linux/system_bus.h"

#include <cerrno>

namespace corvane {
namespace {

constexpr std::string_view socketPrefix = "unix:";

/// An address may be a list, divided by semicolons.
bool namesSocketsAlone(std::string_view address) noexcept {
    while (address.starts_with(socketPrefix)) {
        const std::size_t end = address.find(';');
        if (end == std::string_view::npos) {
            return true;
        }
        address.remove_prefix(end + 1);
    }
    return false;
}

bool isTransient(int result) noexcept {
    return result == -EINTR || result == -EAGAIN;
}

}  // namespace

SystemResult<SystemBus> SystemBus::connect(const std::string& address, Other other,
                                           TimePoint deadline) {
    if (!namesSocketsAlone(address)) {
        return SystemError{EPROTONOSUPPORT};
    }
    // Not sd_bus_open_system(): a daemon that hangs would hold the first call for 90 seconds, the
    // library's own limit for being let in.
    sd_bus* made = nullptr;
    int result = sd_bus_new(&made);
    SystemBus bus(Connection(made), other, deadline);
    if (result >= 0) {
        result = sd_bus_set_address(made, address.c_str());
    }
    if (result >= 0 && other == Other::bus) {
        result = sd_bus_set_bus_client(made, 1);
    }
    if (result >= 0) {
        // Whoever answers has no descriptors to put among ours.
        result = sd_bus_negotiate_fds(made, 0);
    }
    if (result >= 0) {
        // Does not wait: its socket is non-blocking before it is connected.
        result = sd_bus_start(made);
    }
    if (result >= 0) {
        result = bus.awaitAdmission();
    }
    if (result < 0) {
        return SystemError{-result};
    }
    return bus;
}

SystemResult<SystemBus> SystemBus::connect(const ServiceManager& manager, TimePoint deadline) {
    auto bus = connect(manager.busAddress, Other::bus, deadline);
    // One that is there but does not answer is not gone round: what it was asked may yet be done.
    if (bus.error() == ENOENT || bus.error() == ECONNREFUSED) {
        return connect(manager.directAddress, Other::service, deadline);
    }
    return bus;
}

std::uint64_t SystemBus::microsecondsLeft() const noexcept {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline_ - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<std::uint64_t>(left.count()) : 0;
}

/// Does what there is to do on the connection, and waits where that is nothing. Null or a message
/// is left in `message`; negative when the connection has ended, or the time.
int SystemBus::turn(sd_bus_message** message) noexcept {
    const std::uint64_t left = microsecondsLeft();
    if (left == 0) {
        return -ETIMEDOUT;
    }
    int result = sd_bus_process(connection_.get(), message);
    if (result == 0) {
        result = sd_bus_wait(connection_.get(), left);
    }
    return isTransient(result) ? 0 : result;
}

int SystemBus::awaitAdmission() noexcept {
    int result = 0;
    while (result >= 0) {
        result = sd_bus_is_ready(connection_.get());
        if (result != 0) {
            return result;
        }
        result = turn(nullptr);
    }
    return result;
}

BusMessage SystemBus::awaitMessage() {
    sd_bus_message* message = nullptr;
    while (message == nullptr && turn(&message) >= 0) {
    }
    return BusMessage(message);
}

const char* SystemBus::uniqueName() const noexcept {
    const char* name = nullptr;
    return sd_bus_get_unique_name(connection_.get(), &name) >= 0 ? name : nullptr;
}

BusMessage SystemBus::newRequest(const BusMethod& method) const noexcept {
    sd_bus_message* message = nullptr;
    static_cast<void>(sd_bus_message_new_method_call(connection_.get(), &message,
                                                     method.destination, method.path,
                                                     method.interface, method.member));
    return BusMessage(message);
}

BusReply SystemBus::exchange(sd_bus_message* request) const noexcept {
    BusReply reply;
    // A limit of 0 would be the library's 25 seconds.
    if (const std::uint64_t left = microsecondsLeft(); left > 0) {
        sd_bus_message* answer = nullptr;
        static_cast<void>(sd_bus_call(connection_.get(), request, left, &reply.error, &answer));
        reply.message.reset(answer);
    }
    return reply;
}

}  // namespace corvane
