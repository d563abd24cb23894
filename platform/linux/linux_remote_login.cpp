#include "platform/linux/linux_remote_login.h"

namespace corvane {

bool LinuxRemoteLogin::isAvailable() {
    return false;
}

bool LinuxRemoteLogin::authorise() {
    return false;
}

void LinuxRemoteLogin::setEnabled(bool /*enabled*/) {}

}  // namespace corvane
