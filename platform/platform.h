#pragma once

namespace corvane {

class Accounts;
class ChannelDevice;
class Clock;
class FileStreams;
class Firmware;
class HidEvents;
class Hypervisor;
class NetworkInterfaces;
class PowerControl;
class PrivateDirectory;
class ProcessInformation;
class RemoteLogin;
class SerialDevices;
class SystemLog;
class Terminals;
class VsockSockets;

/// The guest's services, as the agent needs them. Borrowed: whoever installs them keeps them alive.
struct Platform {
    SystemLog& systemLog;
    Firmware& firmware;
    SerialDevices& serialDevices;
    Hypervisor& hypervisor;
    ChannelDevice& channelDevice;
    VsockSockets& vsockSockets;
    RemoteLogin& remoteLogin;
    Accounts& accounts;
    PrivateDirectory& privateDirectory;
    Terminals& terminals;
    ProcessInformation& processInformation;
    FileStreams& fileStreams;
    NetworkInterfaces& networkInterfaces;
    PowerControl& powerControl;
    HidEvents& hidEvents;
    Clock& clock;
};

/// The platform in use. One must be installed.
Platform& platform() noexcept;

/// Installs a platform for a scope, and puts the one before back at its end. `main` holds one for
/// the life of the process, a test one for its own. Not while another thread uses the platform.
class PlatformScope {
 public:
    explicit PlatformScope(Platform& installed) noexcept;
    ~PlatformScope();
    PlatformScope(const PlatformScope&) = delete;
    PlatformScope& operator=(const PlatformScope&) = delete;

 private:
    Platform* previous_;
};

}  // namespace corvane
