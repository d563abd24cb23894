#include "platform/linux/linux_remote_login.h"
#include "platform/linux/service_manager.h"

namespace corvane {

ServiceManager thisGuestsServiceManager() {
    return {[] { return false; }, {}, {}};
}

std::optional<bool> askServiceManager(const ServiceManager& /*manager*/, PowerAction /*action*/,
                                      std::chrono::milliseconds /*limit*/) {
    return std::nullopt;
}

bool LinuxRemoteLogin::isAvailable() {
    return false;
}

bool LinuxRemoteLogin::authorise() {
    return false;
}

void LinuxRemoteLogin::setEnabled(bool /*enabled*/) {}

}  // namespace corvane
