#include "tests/unit/platform/linux/input_machine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "platform/linux/linux_hid_events.h"

namespace corvane {

namespace fs = std::filesystem;

namespace {

input_event record(int type, int code, int value) {
    input_event made{};
    made.type = static_cast<__u16>(type);
    made.code = static_cast<__u16>(code);
    made.value = value;
    return made;
}

InputDescription hidDevice(const std::string& reportDescriptor) {
    InputDescription description;
    description.bus = BUS_USB;
    description.hasKeys = true;
    description.hasPowerKey = true;
    description.hasScanCodes = true;
    description.isHid = true;
    description.reportDescriptor = reportDescriptor;
    return description;
}

}  // namespace

InputDescription consumerControl() {
    return hidDevice("\x05\x0C\xA1\x01");
}

InputDescription plainKeyboard() {
    return hidDevice("\x05\x01\xA1\x01");
}

InputDescription machinesButton() {
    InputDescription description;
    description.bus = BUS_HOST;
    description.phys = "LNXPWRBN/button/input0";
    description.hasKeys = true;
    description.hasPowerKey = true;
    return description;
}

Report hidKey(int usagePage, int usage, int value) {
    constexpr int pageFactor = 0x10000;
    return {record(EV_MSC, MSC_SCAN, usagePage * pageFactor + usage),
            record(EV_KEY, KEY_POWER, value), record(EV_SYN, SYN_REPORT, 0)};
}

Report powerKey(int value) {
    return {record(EV_KEY, KEY_POWER, value), record(EV_SYN, SYN_REPORT, 0)};
}

void send(const DescriptorGuard& device, const Report& report) {
    const std::size_t size = report.size() * sizeof(input_event);
    if (::write(device.borrow(), report.data(), size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("cannot send a report");
    }
}

void awaitClosed(const DescriptorGuard& device) {
    pollfd waited{device.borrow(), 0, 0};
    ::poll(&waited, 1, -1);
}

InputMachine::InputMachine() : stop_(::eventfd(0, EFD_CLOEXEC)) {
    tree_.makeDirectory("input");
}

void InputMachine::describe(const std::string& name, std::optional<InputDescription> description) {
    const std::lock_guard guard(lock_);
    descriptions_[name] = std::move(description);
}

std::size_t InputMachine::timesAsked(const std::string& name) {
    const std::lock_guard guard(lock_);
    return asked_[name];
}

void InputMachine::awaitAsked(const std::string& name, std::size_t times) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this, &name, times] { return asked_[name] >= times; });
}

std::string InputMachine::nodePath(const std::string& name) const {
    return tree_.path("input/" + name);
}

void InputMachine::makeNode(const std::string& name) {
    removeNode(name);
    if (::mkfifo(nodePath(name).c_str(), 0600) != 0) {
        throw std::runtime_error("cannot make " + name);
    }
}

void InputMachine::removeNode(const std::string& name) {
    fs::remove(nodePath(name));
}

DescriptorGuard InputMachine::awaitOpened(const std::string& name) const {
    return DescriptorGuard(::open(nodePath(name).c_str(), O_WRONLY | O_CLOEXEC));
}

DescriptorGuard InputMachine::openAtOnce(const std::string& name) const {
    // A named pipe opens for both without waiting for another.
    return DescriptorGuard(::open(nodePath(name).c_str(), O_RDWR | O_CLOEXEC));
}

SystemResult<InputDescription> InputMachine::descriptionOf(int descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const std::string name = fs::read_symlink(link).filename();
    const std::lock_guard guard(lock_);
    ++asked_[name];
    changed_.notify_all();
    const auto& description = descriptions_[name];
    if (!description) {
        return SystemError{ENODEV};
    }
    return *description;
}

void InputMachine::start(HidEvents::Handler alsoCall) {
    thread_ = std::thread([this, alsoCall = std::move(alsoCall)] {
        LinuxHidEvents events(
            tree_.path(), [this](int descriptor) { return descriptionOf(descriptor); },
            stop_.borrow());
        result_ = events.deliver(consumerUsagePage, [this, &alsoCall](const HidEvent& event) {
            const std::lock_guard guard(lock_);
            events_.push_back(event);
            changed_.notify_all();
            if (alsoCall) {
                alsoCall(event);
            }
        });
    });
}

bool InputMachine::stop() {
    if (thread_.joinable()) {
        ::eventfd_write(stop_.borrow(), 1);
        thread_.join();
    }
    return result_;
}

HidEvent InputMachine::nextEvent() {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return !events_.empty(); });
    const HidEvent event = events_.front();
    events_.pop_front();
    return event;
}

/// When the first mark has come, the listener has seen all notices of what was before it; when the
/// second has come, it has also done what they called for.
void InputMachine::letListenerCatchUp(const DescriptorGuard& device) {
    for (const int mark : {0x3FE, 0x3FF}) {
        send(device, hidKey(0x0C, mark, 1));
        while (nextEvent().usage != static_cast<std::uint32_t>(mark)) {
        }
    }
}

}  // namespace corvane
