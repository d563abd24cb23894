#pragma once

namespace corvane {

/// The administration service that switches the guest's SSH server. One thread.
class RemoteLogin {
 public:
    virtual ~RemoteLogin() = default;

    /// Whether the service is there, both to authorise and to switch.
    [[nodiscard]] virtual bool isAvailable() = 0;

    /// Whether the service lets this process switch the SSH server. Waits for its answer.
    [[nodiscard]] virtual bool authorise() = 0;

    /// Switches the SSH server on or off, now and for every start of the guest to come. Nothing
    /// tells whether it was done.
    virtual void setEnabled(bool enabled) = 0;
};

}  // namespace corvane
