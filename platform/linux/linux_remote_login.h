#pragma once

#include "platform/remote_login.h"

namespace corvane {

class LinuxRemoteLogin final : public RemoteLogin {
 public:
    [[nodiscard]] bool isAvailable() override;
    [[nodiscard]] bool authorise() override;
    void setEnabled(bool enabled) override;
};

}  // namespace corvane
