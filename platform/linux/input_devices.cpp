#include "platform/linux/input_devices.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace corvane {

namespace {

/// So much is read of a device in its turn: a device that never stops may not hold up the others.
constexpr std::size_t recordsPerTurn = 64;

/// What is waited for before the devices.
constexpr std::size_t callersDescriptors = 2;

bool isEventDevice(std::string_view name) {
    constexpr std::string_view prefix = "event";
    return name.starts_with(prefix) && name.size() > prefix.size() &&
           name.find_first_not_of("0123456789", prefix.size()) == std::string_view::npos;
}

/// Whether a call that failed so may succeed in a while. A node that has gone, or that is not ours,
/// is told of when that changes.
bool isPassing(int error) {
    return error == EINTR || error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool isSameTime(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

InputDevices::InputDevices(Describe describe, std::uint32_t usagePage)
    : describe_(std::move(describe)), usagePage_(usagePage) {
    polled_.reserve(callersDescriptors);
}

bool InputDevices::scan(const std::string& folder) {
    try {
        return scanOrThrow(folder);
    } catch (const std::bad_alloc&) {
        // A request may have taken all there is for a moment. The devices at hand are kept.
        return false;
    }
}

bool InputDevices::scanOrThrow(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), &::closedir);
    if (!entries) {
        return !isPassing(errno);
    }
    for (Device& device : devices_) {
        device.isListed = false;
    }
    bool complete = true;
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) {
        if (isEventDevice(entry->d_name)) {
            complete = consider(folder + "/" + entry->d_name) && complete;
        }
        errno = 0;
    }
    const int error = errno;
    if (complete && error == 0) {
        std::erase_if(devices_, [](const Device& device) { return !device.isListed; });
    }
    return complete && !isPassing(error);
}

InputDevices::Device* InputDevices::find(const struct stat& status) {
    const auto found =
        std::find_if(devices_.begin(), devices_.end(), [&status](const Device& device) {
            return device.fileSystem == status.st_dev && device.node == status.st_ino;
        });
    return found == devices_.end() ? nullptr : &*found;
}

/// False as `scan`.
bool InputDevices::consider(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return !isPassing(errno);
    }
    Device* known = find(status);
    // The number of a node that was removed may come again. One that is open cannot be that; of one
    // that is not, the time tells.
    if (known != nullptr &&
        (!known->events.empty() || isSameTime(known->changed, status.st_ctim))) {
        known->isListed = true;
        return true;
    }
    Device device;
    device.events =
        DescriptorGuard(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (device.events.empty() || ::fstat(device.events.borrow(), &status) != 0) {
        return !isPassing(errno);
    }
    auto described = describe_(device.events.borrow());
    if (!described.ok()) {
        return !isPassing(described.error());
    }
    const KeySource source = keySourceOf(described.value(), usagePage_);
    if (source == KeySource::none) {
        device.events.closeNow();
    }
    device.fileSystem = status.st_dev;
    device.node = status.st_ino;
    device.changed = status.st_ctim;
    device.report = KeyReport(source);
    // The node may have been exchanged between the two looks at it.
    if (known = find(status); known != nullptr) {
        *known = std::move(device);
    } else {
        polled_.reserve(callersDescriptors + devices_.size() + 1);
        devices_.push_back(std::move(device));
    }
    return true;
}

std::span<pollfd> InputDevices::polled(int first, int second) {
    polled_.clear();
    polled_.push_back({first, POLLIN, 0});
    polled_.push_back({second, POLLIN, 0});
    for (const Device& device : devices_) {
        if (!device.events.empty()) {
            polled_.push_back({device.events.borrow(), POLLIN, 0});
        }
    }
    return polled_;
}

void InputDevices::read(const HidEvents::Handler& handler) {
    auto answers = polled_.begin() + callersDescriptors;
    std::erase_if(devices_, [this, &answers, &handler](Device& device) {
        if (device.events.empty()) {
            return false;
        }
        const short answer = answers->revents;
        ++answers;
        return answer != 0 && !readDevice(device, answer, handler);
    });
}

/// False when the device has gone, or sends what no input device sends.
bool InputDevices::readDevice(Device& device, short answer,
                              const HidEvents::Handler& handler) const {
    std::array<input_event, recordsPerTurn> records;
    const ssize_t count = ::read(device.events.borrow(), records.data(), sizeof records);
    if (count < 0) {
        return (errno == EAGAIN || errno == EINTR) &&
               (answer & (POLLHUP | POLLERR | POLLNVAL)) == 0;
    }
    const auto size = static_cast<std::size_t>(count);
    for (const input_event& record : std::span(records).first(size / sizeof(input_event))) {
        const std::optional<HidEvent> event = device.report.take(record);
        if (event && event->usagePage == usagePage_) {
            handler(*event);
        }
    }
    return size > 0 && size % sizeof(input_event) == 0;
}

}  // namespace corvane
