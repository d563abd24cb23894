#pragma once

#include <linux/input.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/descriptor_guard.h"
#include "platform/hid_events.h"
#include "platform/linux/input_description.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {

/// A device that counts: a HID device of the Consumer page, or the machine's own button.
InputDescription consumerControl();
InputDescription machinesButton();
/// One that does not: a HID keyboard.
InputDescription plainKeyboard();

/// The records of one report.
using Report = std::vector<input_event>;
Report hidKey(int usagePage, int usage, int value);
Report powerKey(int value);

/// Listens to the devices of a machine on a thread of its own. A named pipe is a device; it is what
/// the test says of its name. Waits have no limit of their own: the test's limit is for a hang.
class InputMachine {
 public:
    InputMachine();
    ~InputMachine() { stop(); }
    InputMachine(const InputMachine&) = delete;
    InputMachine& operator=(const InputMachine&) = delete;

    [[nodiscard]] const TemporaryTree& tree() const noexcept { return tree_; }

    /// What devices of this name are from now on; nothing for one that cannot tell.
    void describe(const std::string& name, std::optional<InputDescription> description);
    /// How often devices of this name have been asked.
    std::size_t timesAsked(const std::string& name);
    void awaitAsked(const std::string& name, std::size_t times);

    /// Makes the node of a device. Any of that name is removed first.
    void makeNode(const std::string& name);
    void removeNode(const std::string& name);
    [[nodiscard]] std::string nodePath(const std::string& name) const;
    /// The other end of a device: as soon as the listener has it open, or at once.
    [[nodiscard]] DescriptorGuard awaitOpened(const std::string& name) const;
    [[nodiscard]] DescriptorGuard openAtOnce(const std::string& name) const;

    void start(HidEvents::Handler alsoCall = {});
    /// Ends the listener. Returns what it came back with.
    bool stop();

    /// The next event, in the order of their coming.
    HidEvent nextEvent();
    /// Lets the listener get done with all that has happened so far, by help of an open device.
    /// The events up to then are taken.
    void letListenerCatchUp(const DescriptorGuard& device);

 private:
    SystemResult<InputDescription> descriptionOf(int descriptor);

    TemporaryTree tree_;
    DescriptorGuard stop_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, std::optional<InputDescription>> descriptions_;
    std::map<std::string, std::size_t> asked_;
    std::deque<HidEvent> events_;
    bool result_ = false;
    std::thread thread_;
};

/// Sends a report from the other end of a device.
void send(const DescriptorGuard& device, const Report& report);
/// Waits until no listener has the device open any more.
void awaitClosed(const DescriptorGuard& device);

}  // namespace corvane
