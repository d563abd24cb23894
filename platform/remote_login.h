#pragma once

namespace corvane {

/// The administration service that switches the guest's SSH server. One thread.
class RemoteLogin {
 public:
    virtual ~RemoteLogin() = default;

    /// Whether the service is there, both to authorise and to switch.
    [[nodiscard]] virtual bool isAvailable() = 0;
};

}  // namespace corvane
