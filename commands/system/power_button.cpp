#include "commands/system/power_button.h"

#include <cstdint>
#include <exception>

#include "core/message.h"
#include "platform/platform.h"
#include "platform/power_control.h"

namespace corvane {

namespace {

// HID Usage Tables, section 15: the Consumer page, and Power and Menu on it.
constexpr std::uint32_t consumerPage = 0x0C;
constexpr std::uint32_t consumerPower = 0x30;
constexpr std::uint32_t consumerMenu = 0x40;

}  // namespace

void handlePowerButtonEvent(const HidEvent& event) {
    const bool isPowerButton = event.type == HidEvent::keyboardType &&
                               event.usagePage == consumerPage &&
                               (event.usage == consumerMenu || event.usage == consumerPower);
    if (!isPowerButton || event.keyDown == 0) {
        return;
    }
    try {
        static_cast<void>(platform().powerControl.perform(PowerAction::powerOff));
    } catch (const std::exception&) {
        // Without memory for the order, say. The next press finds the listener at its place.
    }
}

void listenForPowerButton() {
    try {
        if (platform().hidEvents.deliver(consumerPage, handlePowerButtonEvent)) {
            return;
        }
    } catch (const std::exception&) {
        // Without memory, say: the agent goes on without its power button.
    }
    logPowerButtonUnavailable();
}

}  // namespace corvane
