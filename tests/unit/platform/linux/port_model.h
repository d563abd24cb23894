#pragma once

#include <algorithm>
#include <cerrno>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "platform/linux/port_calls.h"

namespace corvane {

/// Thrown where the agent would wait with nothing left to happen: it waits for ever.
struct WaitsForEver {};

/// A port as the kernel's driver has it. What the host does is a list of steps; one is taken
/// whenever the agent waits, so that each wait must be for something that can come.
class PortModel final : public PortCalls {
 public:
    using Step = std::function<void(PortModel&)>;

    void then(Step step) { steps_.push_back(std::move(step)); }

    void connect() {
        connected = true;
        ++changes;
    }
    void leave() {
        connected = false;
        ++changes;
    }
    void unplug() {
        unplugged = true;
        leave();
    }
    void sendToGuest(const std::string& bytes) {
        inbound += bytes;
        ++changes;
    }
    void readFromGuest(std::size_t count) {
        space += count;
        ++changes;
    }

    ssize_t read(std::span<char> buffer) override {
        ++reads;
        if (unplugged) {
            return failure(ENODEV);
        }
        if (interruptions > 0) {
            --interruptions;
            return failure(EINTR);
        }
        if (inbound.empty() && connected) {
            return failure(EAGAIN);
        }
        const std::size_t count = std::min({buffer.size(), inbound.size(), std::size_t{4096}});
        std::copy_n(inbound.begin(), count, buffer.begin());
        inbound.erase(0, count);
        if (afterRead) {
            std::exchange(afterRead, nullptr)(*this);
        }
        return static_cast<ssize_t>(count);
    }

    ssize_t write(std::string_view bytes) override {
        ++writes;
        if (beforeWrite) {
            std::exchange(beforeWrite, nullptr)(*this);
        }
        if (writeError != 0) {
            return failure(writeError);
        }
        if (unplugged) {
            return failure(ENODEV);
        }
        if (!connected || space == 0) {
            return failure(EAGAIN);
        }
        if (interruptions > 0) {
            --interruptions;
            return failure(EINTR);
        }
        if (refusesPieces) {
            if (writes > 3) {
                throw WaitsForEver();
            }
            errno = EAGAIN;  // of some call before: a success leaves it as it was
            return 0;
        }
        const std::size_t count = std::min({bytes.size(), space, std::size_t{32768}});
        outbound.append(bytes.substr(0, count));
        space -= count;
        return static_cast<ssize_t>(count);
    }

    InputState waitForInput(int limit) override {
        if (std::exchange(nextWaitFails, false)) {
            return InputState::noHost;
        }
        while (canWait && inbound.empty() && connected && interruptions == 0 && !readyForNothing) {
            if (limit == 0 || (steps_.empty() && limit != noLimit)) {
                timeouts += limit == 0 ? 0 : 1;
                return InputState::silent;
            }
            step();
        }
        readyForNothing = false;
        return canWait && connected ? InputState::ready : InputState::noHost;
    }

    OutputState waitForOutput() override {
        while (canWait && connected && space == 0) {
            step();
        }
        if (!canWait) {
            return OutputState::failed;
        }
        return connected ? OutputState::ready : OutputState::hostGone;
    }

    Change waitForChange(int limit) override {
        ++waits;
        while (changes == 0) {
            if (steps_.empty() && limit != noLimit) {
                ++timeouts;
                return Change::none;
            }
            step();
        }
        changes = 0;
        return canWait ? Change::happened : Change::failed;
    }

    bool connected = false;
    bool unplugged = false;
    bool refusesPieces = false;
    bool readyForNothing = false;  ///< the next wait for input ends without any
    bool nextWaitFails = false;    ///< the next one for input
    bool canWait = true;
    int interruptions = 0;
    int writeError = 0;
    std::string inbound;
    std::string outbound;
    std::size_t space = 1U << 20U;
    int changes = 0;
    int reads = 0;
    int writes = 0;
    int waits = 0;
    int timeouts = 0;
    Step afterRead;
    Step beforeWrite;

 private:
    void step() {
        if (steps_.empty()) {
            throw WaitsForEver();
        }
        const Step next = std::move(steps_.front());
        steps_.pop_front();
        next(*this);
    }

    static ssize_t failure(int error) {
        errno = error;
        return -1;
    }

    std::deque<Step> steps_;
};

}  // namespace corvane
