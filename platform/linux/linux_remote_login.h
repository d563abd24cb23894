#pragma once

#include "platform/remote_login.h"

namespace corvane {

/// Remote login on Linux. Not available: the agent has no way yet to switch the SSH server, and
/// the host must not be told of a command that cannot work.
class LinuxRemoteLogin final : public RemoteLogin {
 public:
    [[nodiscard]] bool isAvailable() override;
};

}  // namespace corvane
