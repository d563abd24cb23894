#include "tests/unit/platform/linux/private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/descriptor_guard.h"

namespace corvane {

PrivateBus::PrivateBus(const std::string& moreConfiguration, const std::string& option) {
    files_.makeFile("configuration", "<busconfig><listen>" + address() +
                                         "</listen><auth>EXTERNAL</auth>"
                                         "<policy context='default'>"
                                         "<allow user='*'/><allow own='*'/>"
                                         "<allow send_type='method_call'/>"
                                         "<allow send_type='signal'/>"
                                         "<allow send_requested_reply='true'/>"
                                         "<allow receive_type='method_call'/>"
                                         "<allow receive_type='signal'/>"
                                         "<allow receive_requested_reply='true'/></policy>" +
                                         moreConfiguration + "</busconfig>");
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    const DescriptorGuard readEnd(ends[0]);
    DescriptorGuard writeEnd(ends[1]);
    const std::string log = files_.path("log");
    const std::string file = "--config-file=" + files_.path("configuration");
    const pid_t parent = ::getpid();
    daemon_ = ::fork();
    if (daemon_ == 0) {
        // It prints its address, on its output, when it can be connected to.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() == parent && ::dup2(writeEnd.borrow(), STDOUT_FILENO) >= 0 &&
            ::dup2(::open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO) >= 0) {
            ::execlp("dbus-daemon", "dbus-daemon", file.c_str(), "--nofork", "--nopidfile",
                     "--print-address=1", option.c_str(), nullptr);
        }
        ::_exit(127);
    }
    writeEnd.closeNow();
    char byte = 0;
    if (::read(readEnd.borrow(), &byte, 1) != 1) {
        ::waitpid(daemon_, nullptr, 0);
        std::ostringstream said;
        said << std::ifstream(log).rdbuf();
        throw std::runtime_error("dbus-daemon (installed by scripts/bootstrap) does not start: " +
                                 said.str());
    }
}

PrivateBus::~PrivateBus() {
    ::kill(daemon_, SIGKILL);
    ::waitpid(daemon_, nullptr, 0);
}

void PrivateBus::stopAnswering() const {
    ::kill(daemon_, SIGSTOP);
    ::waitpid(daemon_, nullptr, WUNTRACED);
}

}  // namespace corvane
