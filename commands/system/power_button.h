#pragma once

#include "platform/hid_events.h"

namespace corvane {

/// Waits for presses of the virtual machine's power button and powers the guest off on each. Comes
/// back, after a line in the status log, only where the devices cannot be listened to. Touches
/// nothing of the agent. A thread of its own.
void listenForPowerButton();

/// Powers the guest off when `event` is the press of a power button: a key of the Consumer page
/// with the usage Power, or Menu, which remote hosts send for the same button. Nobody is told of a
/// refusal. Any thread.
void handlePowerButtonEvent(const HidEvent& event);

}  // namespace corvane
