#include "tests/unit/platform/linux/fake_guest_services.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace corvane {
namespace {

/// The values of a message from where it stands, each after a blank; containers in brackets.
std::string describeValues(sd_bus_message* message) {
    std::string text;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
        if (std::string_view("arve").find(type) != std::string_view::npos) {
            sd_bus_message_enter_container(message, type, contents);
            text += " [" + describeValues(message) + " ]";
            sd_bus_message_exit_container(message);
        } else if (type == 's' || type == 'o') {
            const char* value = nullptr;
            sd_bus_message_read_basic(message, type, &value);
            text += std::string(" ") + value;
        } else {
            // The only others that are used here, 'b' and 'u', have 32 bits.
            std::uint32_t value = 0;
            sd_bus_message_read_basic(message, type, &value);
            text += " " + std::to_string(value);
        }
    }
    return text;
}

std::string describe(sd_bus_message* call) {
    std::string service = sd_bus_message_get_interface(call);
    constexpr std::string_view common = "org.freedesktop.";
    service.erase(0, common.size());
    service.erase(std::min(service.find('.'), service.size()));
    return service + "." + sd_bus_message_get_member(call) + describeValues(call);
}

std::string firstString(sd_bus_message* call, const char* type = "s") {
    const char* text = "";
    sd_bus_message_rewind(call, 1);
    sd_bus_message_read(call, type, &text);
    return text;
}

}  // namespace

std::vector<std::string> FakeGuestServices::calls() {
    const std::lock_guard guard(lock_);
    return calls_;
}

std::vector<std::string> FakeGuestServices::orders() {
    std::vector<std::string> found = calls();
    std::erase_if(found, [](const std::string& call) { return call.starts_with("DBus.Get "); });
    return found;
}

void FakeGuestServices::awaitCall(const std::string& beginning) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] {
        return std::ranges::any_of(calls_,
                                   [&](const auto& call) { return call.starts_with(beginning); });
    });
}

bool FakeGuestServices::answer(sd_bus_message* call) {
    if (sd_bus_message_is_signal(call, "org.freedesktop.systemd1.Activator", "ActivationRequest") >
        0) {
        refuseActivation(call);
        return true;
    }
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return false;
    }
    const std::string interface = sd_bus_message_get_interface(call);
    const std::string member = sd_bus_message_get_member(call);
    // libsystemd answers pings itself.
    if (interface == "org.freedesktop.DBus.Peer" && !unanswered.contains(member)) {
        return false;
    }
    {
        const std::lock_guard guard(lock_);
        calls_.push_back(describe(call));
    }
    changed_.notify_all();
    if (unanswered.contains(member)) {
        return true;
    }
    if (const auto error = errors.find(member); error != errors.end()) {
        sd_bus_reply_method_errorf(call, error->second.c_str(), "%s", "as the test says");
    } else {
        reply(call, member);
    }
    return true;
}

/// The bus's side of it: activation.c of dbus-daemon, bus_activation_systemd_failure.
void FakeGuestServices::refuseActivation(sd_bus_message* request) {
    const std::string unit = firstString(request);
    sd_bus_message* message = nullptr;
    sd_bus_message_new_signal(sd_bus_message_get_bus(request), &message, "/org/freedesktop/DBus",
                              "org.freedesktop.systemd1.Activator", "ActivationFailure");
    sd_bus_message_append(message, "sss", unit.c_str(), activationError.c_str(), "as said");
    sd_bus_message_set_destination(message, "org.freedesktop.DBus");
    sd_bus_send(nullptr, message, nullptr);
    sd_bus_message_unref(message);
    ++activationRequests;
}

int FakeGuestServices::reply(sd_bus_message* call, const std::string& member) {
    if (member == "Subscribe") {
        const std::lock_guard guard(lock_);
        subscribed_ = true;
    }
    if (member == "StartUnit" || member == "StopUnit") {
        return replyWithJob(call);
    }
    if (member == "GetUnitFileState") {
        const auto state = fileStates.find(firstString(call));
        return state == fileStates.end()
                   ? sd_bus_reply_method_errorf(call, "org.freedesktop.DBus.Error.FileNotFound",
                                                "%s", "No such file or directory")
                   : sd_bus_reply_method_return(call, "s", state->second.c_str());
    }
    if (member == "Get") {
        return replyWithProperty(call);
    }
    if (member == "CheckAuthorization") {
        sd_bus_message_rewind(call, 1);
        const char* action = "";
        sd_bus_message_skip(call, "(sa{sv})");
        sd_bus_message_read(call, "s", &action);
        return sd_bus_reply_method_return(call, "(bba{ss})", allowedActions.contains(action), 1, 0);
    }
    if (member == "EnableUnitFiles") {
        return sd_bus_reply_method_return(call, "ba(sss)", 1, 0);
    }
    if (member == "DisableUnitFiles") {
        return sd_bus_reply_method_return(call, "a(sss)", 0);
    }
    return sd_bus_reply_method_return(call, "");
}

int FakeGuestServices::replyWithProperty(sd_bus_message* call) {
    const char* interface = nullptr;
    const char* property = nullptr;
    sd_bus_message_rewind(call, 1);
    sd_bus_message_read(call, "ss", &interface, &property);
    if (std::string_view(property) == "SystemState") {
        return sd_bus_reply_method_return(call, "v", "s", systemState.c_str());
    }
    if (std::string_view(property) == "PreparingForShutdown") {
        return sd_bus_reply_method_return(call, "v", "b", preparingForShutdown ? 1 : 0);
    }
    if (std::string_view(property) == "ScheduledShutdown") {
        return sd_bus_reply_method_return(call, "v", "(st)", scheduledShutdown.c_str(),
                                          std::uint64_t{0});
    }
    char* decoded = nullptr;
    sd_bus_path_decode(sd_bus_message_get_path(call), "/org/freedesktop/systemd1/unit", &decoded);
    const std::string unit = decoded != nullptr ? decoded : "";
    ::free(decoded);
    if (std::string_view(property) == "Job") {
        const bool queued = queuedUnits.contains(unit);
        return sd_bus_reply_method_return(call, "v", "(uo)", queued ? 7 : 0,
                                          queued ? "/org/freedesktop/systemd1/job/7" : "/");
    }
    const auto state = activeStates.find(unit);
    return sd_bus_reply_method_return(
        call, "v", "s", state == activeStates.end() ? "inactive" : state->second.c_str());
}

int FakeGuestServices::replyWithJob(sd_bus_message* call) {
    unsigned job = 0;
    {
        const std::lock_guard guard(lock_);
        job = ++lastJob_;
        jobs_.push_back(job);
    }
    const std::string path = "/org/freedesktop/systemd1/job/" + std::to_string(job);
    return sd_bus_reply_method_return(call, "o", path.c_str());
}

std::vector<unsigned> FakeGuestServices::takeEndedJobs() {
    const std::lock_guard guard(lock_);
    return jobsEndAtOnce && subscribed_ ? std::exchange(jobs_, {}) : std::vector<unsigned>();
}

namespace {

int answerThrough(sd_bus_message* call, void* services, sd_bus_error* /*error*/) {
    return static_cast<FakeGuestServices*>(services)->answer(call) ? 1 : 0;
}

void require(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
    }
}

}  // namespace

FakeServer::FakeServer(FakeGuestServices& services, const OnBus& place)
    : services_(services), wake_(::eventfd(0, EFD_CLOEXEC)) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus), "sd_bus_new");
    require(sd_bus_set_address(bus, place.address.c_str()), "address");
    require(sd_bus_set_bus_client(bus, 1), "client");
    require(sd_bus_start(bus), "start");
    require(sd_bus_add_filter(bus, nullptr, answerThrough, &services_), "filter");
    for (const std::string& name : place.names) {
        require(sd_bus_request_name(bus, name.c_str(), 0), "name");
    }
    thread_ = std::thread([this, bus] { serve(bus); });
}

FakeServer::FakeServer(FakeGuestServices& services, const OnSocket& place)
    : services_(services),
      wake_(::eventfd(0, EFD_CLOEXEC)),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    place.path.copy(address.sun_path, sizeof address.sun_path - 1);
    require(::bind(listener_.borrow(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            "bind");
    require(::listen(listener_.borrow(), 16), "listen");
    thread_ = std::thread([this] { serveCallers(); });
}

FakeServer::~FakeServer() {
    stopping_ = true;
    ::eventfd_write(wake_.borrow(), 1);
    thread_.join();
}

void FakeServer::endJobs() {
    {
        const std::lock_guard guard(services_.lock_);
        services_.jobsEndAtOnce = true;
    }
    ::eventfd_write(wake_.borrow(), 1);
}

/// Waits for the descriptor, or to be woken. False when it is to end.
bool FakeServer::awaitInput(int descriptor, short events) const {
    std::array<pollfd, 2> entries{pollfd{descriptor, events, 0}, pollfd{wake_.borrow(), POLLIN, 0}};
    ::poll(entries.data(), entries.size(), -1);
    if (!stopping_ && (entries[1].revents & POLLIN) != 0) {
        eventfd_t ignored = 0;
        ::eventfd_read(wake_.borrow(), &ignored);
    }
    return !stopping_;
}

void FakeServer::serve(sd_bus* bus) {
    int result = 0;
    do {
        while ((result = sd_bus_process(bus, nullptr)) > 0) {
        }
        for (const unsigned job : services_.takeEndedJobs()) {
            const std::string path = "/org/freedesktop/systemd1/job/" + std::to_string(job);
            sd_bus_emit_signal(bus, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                               "JobRemoved", "uoss", job, path.c_str(), "some.unit", "done");
        }
    } while (result >= 0 &&
             awaitInput(sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus))));
    sd_bus_close_unref(bus);
}

void FakeServer::serveCallers() {
    while (awaitInput(listener_.borrow(), POLLIN)) {
        const int caller =
            ::accept4(listener_.borrow(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        sd_bus* bus = nullptr;
        sd_id128_t id{};
        sd_id128_randomize(&id);
        if (caller < 0 || sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, caller, caller) < 0 ||
            sd_bus_set_server(bus, 1, id) < 0 || sd_bus_start(bus) < 0 ||
            sd_bus_add_filter(bus, nullptr, answerThrough, &services_) < 0) {
            std::abort();
        }
        serve(bus);
    }
}

}  // namespace corvane
