#include "platform/linux/linux_remote_login.h"

namespace corvane {

bool LinuxRemoteLogin::isAvailable() {
    return false;
}

}  // namespace corvane
