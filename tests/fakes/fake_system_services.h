#pragma once

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "platform/hid_events.h"
#include "platform/network_interfaces.h"
#include "platform/power_control.h"
#include "platform/remote_login.h"

namespace corvane {

/// A list that the test puts together.
class FakeNetworkInterfaces : public NetworkInterfaces {
 public:
    SystemResult<std::vector<InterfaceAddress>> list() override {
        if (error != 0) {
            return SystemError{error};
        }
        return entries;
    }

    std::vector<InterfaceAddress> entries;
    int error = 0;
};

/// Notes what it is asked for. Nothing goes down.
class FakePowerControl : public PowerControl {
 public:
    bool perform(PowerAction action) override {
        const std::lock_guard lock(mutex_);
        performed_.push_back(action);
        if (lacksMemory) {
            throw std::bad_alloc();
        }
        return accepts;
    }

    [[nodiscard]] std::vector<PowerAction> performed() const {
        const std::lock_guard lock(mutex_);
        return performed_;
    }

    std::atomic<bool> accepts = true;
    std::atomic<bool> lacksMemory = false;

 private:
    mutable std::mutex mutex_;
    std::vector<PowerAction> performed_;
};

/// Devices that report what the test has prepared, and then nothing more.
class FakeHidEvents : public HidEvents {
 public:
    bool deliver(std::uint32_t primaryUsagePage, const Handler& handler) override {
        usagePages.push_back(primaryUsagePage);
        for (const HidEvent& event : events) {
            handler(event);
        }
        return works;
    }

    bool works = true;
    std::vector<HidEvent> events;
    std::vector<std::uint32_t> usagePages;  ///< asked for
};

/// A clock that stands still until it is set.
class FakeClock : public Clock {
 public:
    std::optional<std::timespec> read() override { return now; }
    bool set(const std::timespec& time) override {
        attempts.push_back(time);
        if (accepts) {
            now = time;
        }
        return accepts;
    }

    std::optional<std::timespec> now = std::timespec{};
    bool accepts = true;
    std::vector<std::timespec> attempts;
};

class FakeRemoteLogin : public RemoteLogin {
 public:
    [[nodiscard]] bool isAvailable() override { return available; }
    [[nodiscard]] bool authorise() override {
        ++authorisations;
        return authorises;
    }
    void setEnabled(bool enabled) override { switched.push_back(enabled); }

    bool available = false;
    bool authorises = true;
    int authorisations = 0;
    std::vector<bool> switched;
};

}  // namespace corvane
