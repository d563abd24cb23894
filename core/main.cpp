#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <memory>

#include "commands/all_commands.h"
#include "commands/exec/reaper.h"
#include "commands/system/power_button.h"
#include "core/command_table.h"
#include "core/start_up.h"
#include "platform/linux/linux_platform.h"
#include "platform/platform.h"

namespace {

/// Gives the process its three standard descriptors where it was started without them, so that no
/// channel or file of ours can take their numbers.
void fillStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) == -1) {
            static_cast<void>(::open("/dev/null", O_RDWR));
        }
    }
}

}  // namespace

int main() {
    fillStandardDescriptors();
    try {
        // Never destroyed: other threads may be using it while the process exits.
        static corvane::LinuxPlatform& linuxPlatform =
            *std::make_unique<corvane::LinuxPlatform>().release();
        std::atexit([] { linuxPlatform.finishLog(); });
        const corvane::PlatformScope scope(linuxPlatform.services());
        corvane::useCommandTable(corvane::allCommands);
        corvane::runAgent({corvane::listenForPowerButton, corvane::reapChildren});
    } catch (const std::exception&) {
        return EXIT_FAILURE;  // without memory for the services, and so without a log to say it in
    }
}
