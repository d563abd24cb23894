#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <systemd/sd-bus.h>

#include "core/system_result.h"
#include "platform/linux/service_manager.h"

namespace corvane {

/// What a C function of libsystemd gives back to be released.
template <auto release>
struct Releaser {
    template <typename T>
    void operator()(T* object) const noexcept {
        static_cast<void>(release(object));
    }
};

using BusMessage = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;

/// A method of a service on the bus, as D-Bus names it. Borrows the names.
struct BusMethod {
    const char* destination;
    const char* path;
    const char* interface;
    const char* member;
};

/// What a call came to: a message, or an error with a name. Move-only.
class BusReply {
 public:
    BusReply() noexcept = default;
    BusReply(BusReply&& other) noexcept
        : message(std::move(other.message)), error(std::exchange(other.error, sd_bus_error{})) {}
    BusReply(const BusReply&) = delete;
    BusReply& operator=(const BusReply&) = delete;
    BusReply& operator=(BusReply&&) = delete;
    ~BusReply() { sd_bus_error_free(&error); }

    [[nodiscard]] bool ok() const noexcept { return message != nullptr; }

    /// The error's name, the one of libsystemd for an error that the other side didn't send. Empty
    /// for a reply, and where memory didn't suffice for the name.
    [[nodiscard]] std::string_view errorName() const noexcept {
        return error.name != nullptr ? error.name : "";
    }

    BusMessage message;
    sd_bus_error error{};
};

/// A connection to the system's message bus, or to one service directly, and a deadline: whatever
/// is done with it ends by then. Closes at once, without waiting for anybody. Move-only. One thread
/// at a time; no two share a connection.
class SystemBus {
 public:
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class Other { bus, service };  ///< who is at the other end

    /// Connects and waits until the other end has let us in. The address must be one of sockets in
    /// the file system (or of the abstract ones), "unix:...", else EPROTONOSUPPORT: other kinds
    /// start programs or look names up for as long as it takes. ENOENT or ECONNREFUSED when nobody
    /// is there, ETIMEDOUT at the deadline, EAGAIN when too many wait to be let in.
    [[nodiscard]] static SystemResult<SystemBus> connect(const std::string& address, Other other,
                                                         TimePoint deadline);

    /// Connects to the bus, or, where there is none, to the service manager's own socket.
    [[nodiscard]] static SystemResult<SystemBus> connect(const ServiceManager& manager,
                                                         TimePoint deadline);

    /// Calls a method, with the values that `types` announces (see sd_bus_message_append(3)), and
    /// waits for the answer. Nobody is asked for a password on the way.
    template <typename... Values>
    [[nodiscard]] BusReply call(const BusMethod& method, const char* types, Values... values) {
        BusMessage request = newRequest(method);
        if (request == nullptr || sd_bus_message_append(request.get(), types, values...) < 0) {
            return {};
        }
        return exchange(request.get());
    }

    /// The next message that is no answer to a call, a signal mostly. Null at the deadline, and
    /// when the connection has ended.
    [[nodiscard]] BusMessage awaitMessage();

    /// Whether this is the bus. A single service is at the other end otherwise.
    [[nodiscard]] bool isBus() const noexcept { return other_ == Other::bus; }

    /// Our name on the bus; null where there is none.
    [[nodiscard]] const char* uniqueName() const noexcept;

 private:
    // sd_bus_flush_close_unref() would wait for a daemon that hangs.
    using Connection = std::unique_ptr<sd_bus, Releaser<sd_bus_close_unref>>;

    SystemBus(Connection connection, Other other, TimePoint deadline) noexcept
        : connection_(std::move(connection)), other_(other), deadline_(deadline) {}

    [[nodiscard]] std::uint64_t microsecondsLeft() const noexcept;
    [[nodiscard]] int turn(sd_bus_message** message) noexcept;
    [[nodiscard]] int awaitAdmission() noexcept;
    [[nodiscard]] BusMessage newRequest(const BusMethod& method) const noexcept;
    [[nodiscard]] BusReply exchange(sd_bus_message* request) const noexcept;

    Connection connection_;
    Other other_;
    TimePoint deadline_;
};

}  // namespace corvane
