#include "platform/vsock_sockets.h"

#include "platform/platform.h"

namespace corvane {

bool isVsockAvailable() {
    return platform().vsockSockets.createStream().ok();
}

}  // namespace corvane
