#pragma once

#include <unistd.h>

#include <chrono>
#include <utility>

#include "platform/linux/service_manager.h"
#include "platform/remote_login.h"

namespace corvane {

/// The SSH server as units of the service manager: ssh.service and sshd.service, and the sockets
/// ssh.socket and sshd.socket where they start it. Units that an administrator has masked are left
/// alone.
///
/// Root is let do it by the service manager itself. Another user needs polkit's consent.
class LinuxRemoteLogin final : public RemoteLogin {
 public:
    /// How long each operation may take. The first is part of every "guest-info", the last waits
    /// for the server to start or stop.
    struct Limits {
        std::chrono::milliseconds isAvailable = std::chrono::seconds(2);
        std::chrono::milliseconds authorise = std::chrono::seconds(5);
        std::chrono::milliseconds setEnabled = std::chrono::seconds(20);
    };

    LinuxRemoteLogin() : LinuxRemoteLogin(thisGuestsServiceManager(), ::geteuid() == 0, Limits()) {}

    LinuxRemoteLogin(ServiceManager manager, bool isRoot, Limits limits)
        : manager_(std::move(manager)), isRoot_(isRoot), limits_(limits) {}

    [[nodiscard]] bool isAvailable() override;
    [[nodiscard]] bool authorise() override;
    void setEnabled(bool enabled) override;

 private:
    [[maybe_unused]] const ServiceManager manager_;
    [[maybe_unused]] const bool isRoot_;
    [[maybe_unused]] const Limits limits_;
};

}  // namespace corvane
