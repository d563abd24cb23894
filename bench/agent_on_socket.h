#pragma once

#include <array>
#include <atomic>
#include <string_view>
#include <thread>

#include "core/descriptor_guard.h"
#include "platform/linux/linux_channel_device.h"
#include "platform/linux/linux_network_interfaces.h"
#include "platform/platform.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/fakes/fake_services.h"
#include "tests/fakes/fake_system_services.h"

namespace corvane {

/// A log that nobody keeps.
class NullSystemLog final : public SystemLog {
 public:
    void createCategories(const char* /*identifier*/) override {}
    [[nodiscard]] bool records(LogCategory /*category*/) const override { return false; }
    void write(LogCategory /*category*/, std::string_view /*text*/) noexcept override {}
};

/// The channel of Linux, over a socketpair of which it keeps the host's end.
class SocketChannelDevice final : public ChannelDevice {
 public:
    SystemResult<DescriptorGuard> openSerial(const char* path) override;
    int claimExclusive(int /*descriptor*/) override { return 0; }
    int clearStatusFlags(int /*descriptor*/) override { return 0; }
    ssize_t receive(int descriptor, std::span<char> buffer, int patience) override {
        return device_.receive(descriptor, buffer, patience);
    }
    void send(int descriptor, std::span<const std::string_view> pieces) noexcept override {
        device_.send(descriptor, pieces);
    }
    void closeChannel(int descriptor) noexcept override { device_.closeChannel(descriptor); }

    DescriptorGuard hostEnd;

 private:
    LinuxChannelDevice device_;
};

/// A guest whose log goes nowhere, in use as long as it lives, with the commands that bear being
/// called without end.
class BenchPlatform {
 public:
    BenchPlatform();

    SocketChannelDevice channelDevice;
    FakeVsockSockets vsockSockets;

 private:
    NullSystemLog systemLog_;
    FakeFirmware firmware_;
    FakeSerialDevices serialDevices_;
    FakeHypervisor hypervisor_;
    FakeRemoteLogin remoteLogin_;
    FakeAccounts accounts_;
    FakePrivateDirectory privateDirectory_;
    FakeTerminals terminals_;
    FakeProcessInformation processInformation_;
    FakeFileStreams fileStreams_;
    LinuxNetworkInterfaces networkInterfaces_;
    FakePowerControl powerControl_;
    FakeHidEvents hidEvents_;
    FakeClock clock_;
    Platform services_{systemLog_,         firmware_,     serialDevices_,      hypervisor_,
                       channelDevice,      vsockSockets,  remoteLogin_,        accounts_,
                       privateDirectory_,  terminals_,    processInformation_, fileStreams_,
                       networkInterfaces_, powerControl_, hidEvents_,          clock_};
    PlatformScope scope_{services_};
};

/// The read loop on a thread of its own and the host at the other end. Ends with its scope.
class AgentOnSocket {
 public:
    AgentOnSocket();
    ~AgentOnSocket();
    AgentOnSocket(const AgentOnSocket&) = delete;
    AgentOnSocket& operator=(const AgentOnSocket&) = delete;

    [[nodiscard]] int hostEnd() const noexcept { return platform_.channelDevice.hostEnd.borrow(); }

 private:
    BenchPlatform platform_;
    std::atomic<bool> ending_ = false;
    std::thread loop_;
};

/// Writes all of `text`.
void sendAll(int descriptor, std::string_view text);

/// Reads until a line feed has come; nothing may follow it. Returns the last piece that was read,
/// the whole of a short line. Valid until the next call.
std::string_view receiveLine(int descriptor);

}  // namespace corvane
