#pragma once

#include "platform/platform.h"
#include "tests/fakes/fake_channel_device.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/fakes/fake_services.h"
#include "tests/fakes/fake_system_services.h"

namespace corvane {

/// A guest without vsock and remote login, with a serial channel that belongs to the right driver.
/// In use as long as it lives.
struct FakePlatform {
    FakeSystemLog systemLog;
    FakeFirmware firmware;
    FakeSerialDevices serialDevices;
    FakeHypervisor hypervisor;
    FakeChannelDevice channelDevice;
    FakeVsockSockets vsockSockets;
    FakeRemoteLogin remoteLogin;
    FakeAccounts accounts;
    FakePrivateDirectory privateDirectory;
    FakeTerminals terminals;
    FakeProcessInformation processInformation;
    FakeFileStreams fileStreams;
    FakeNetworkInterfaces networkInterfaces;
    FakePowerControl powerControl;
    FakeHidEvents hidEvents;
    FakeClock clock;

 private:
    Platform services_{systemLog,         firmware,     serialDevices,      hypervisor,
                       channelDevice,     vsockSockets, remoteLogin,        accounts,
                       privateDirectory,  terminals,    processInformation, fileStreams,
                       networkInterfaces, powerControl, hidEvents,          clock};
    PlatformScope scope_{services_};
};

}  // namespace corvane
