#pragma once

#include "platform/platform.h"

namespace corvane {

/// Services that a test brings itself, in place of some of the platform in use. Borrowed.
struct OwnServices {
    SystemLog* systemLog = nullptr;
    Firmware* firmware = nullptr;
    SerialDevices* serialDevices = nullptr;
    ChannelDevice* channelDevice = nullptr;
    VsockSockets* vsockSockets = nullptr;
    Accounts* accounts = nullptr;
    PrivateDirectory* privateDirectory = nullptr;
    Terminals* terminals = nullptr;
    FileStreams* fileStreams = nullptr;
    NetworkInterfaces* networkInterfaces = nullptr;
    HidEvents* hidEvents = nullptr;
};

/// The platform in use with a test's own services.
inline Platform platformWith(const OwnServices& own) {
    const auto either = [](auto* service, auto& otherwise) -> auto& {
        return service != nullptr ? *service : otherwise;
    };
    const Platform& used = platform();
    return {either(own.systemLog, used.systemLog),
            either(own.firmware, used.firmware),
            either(own.serialDevices, used.serialDevices),
            used.hypervisor,
            either(own.channelDevice, used.channelDevice),
            either(own.vsockSockets, used.vsockSockets),
            used.remoteLogin,
            either(own.accounts, used.accounts),
            either(own.privateDirectory, used.privateDirectory),
            either(own.terminals, used.terminals),
            used.processInformation,
            either(own.fileStreams, used.fileStreams),
            either(own.networkInterfaces, used.networkInterfaces),
            used.powerControl,
            either(own.hidEvents, used.hidEvents),
            used.clock};
}

}  // namespace corvane
