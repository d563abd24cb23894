#include "commands/system/power_button.h"

#include <exception>

#include "core/message.h"
#include "platform/platform.h"
#include "platform/power_control.h"

namespace corvane {

void handlePowerButtonEvent(const HidEvent& event) {
    const bool isPowerButton =
        event.type == HidEvent::keyboardType && event.usagePage == consumerUsagePage &&
        (event.usage == consumerMenuUsage || event.usage == consumerPowerUsage);
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
        if (platform().hidEvents.deliver(consumerUsagePage, handlePowerButtonEvent)) {
            return;
        }
    } catch (const std::exception&) {
        // Without memory, say: the agent goes on without its power button.
    }
    logPowerButtonUnavailable();
}

}  // namespace corvane
