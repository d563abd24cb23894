#include "tests/unit/platform/linux/pseudo_terminal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {

PseudoTerminal::PseudoTerminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    std::array<char, 64> name{};
    if (master_.empty() || ::grantpt(master_.borrow()) != 0 || ::unlockpt(master_.borrow()) != 0 ||
        ::ptsname_r(master_.borrow(), name.data(), name.size()) != 0) {
        throw std::runtime_error("cannot make a pseudo-terminal");
    }
    path_ = name.data();
}

void PseudoTerminal::type(const std::string& text) const {
    if (::write(master_.borrow(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("cannot type");
    }
}

void declareVirtioPort(const TemporaryTree& tree, const std::string& devicePath) {
    struct stat status {};
    if (::stat(devicePath.c_str(), &status) != 0) {
        throw std::runtime_error("no device at " + devicePath);
    }
    const std::string number =
        std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
    const std::string device = "devices/port-" + number;
    tree.makeLink(device + "/subsystem", "../../class/virtio-ports");
    tree.makeLink("dev/char/" + number, "../../" + device);
}

}  // namespace corvane
