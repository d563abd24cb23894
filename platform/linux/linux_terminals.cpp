#include "platform/linux/linux_terminals.h"

#include <fcntl.h>

#include <cerrno>
#include <stdlib.h>

#include "platform/linux/interrupted_call.h"
#include "platform/linux/terminal_translation.h"

namespace corvane {
namespace {

constexpr int openFlags = O_RDWR | O_NOCTTY | O_CLOEXEC;

/// An ioctl(2) that takes a pointer. Returns 0 or an errno value.
template <typename Argument>
int request(int descriptor, unsigned long code, Argument* argument) {
    const int result = untilUninterrupted([&] { return ::ioctl(descriptor, code, argument); });
    return result < 0 ? errno : 0;
}

}  // namespace

SystemResult<PseudoTerminalPair> LinuxTerminals::openPair(const TerminalSettings& settings,
                                                          const winsize& size) {
    PseudoTerminalPair pair;
    pair.master = DescriptorGuard(untilUninterrupted([] { return ::posix_openpt(openFlags); }));
    if (pair.master.empty()) {
        return SystemError{errno};
    }
    // grantpt has nothing to do: the kernel makes the slave ours, with a mode that suits.
    if (::unlockpt(pair.master.borrow()) != 0) {
        return SystemError{errno};
    }
    // Asked of the master and not opened by its name, which another mount namespace may have given
    // to another terminal.
    pair.slave = DescriptorGuard(
        untilUninterrupted([&] { return ::ioctl(pair.master.borrow(), TIOCGPTPEER, openFlags); }));
    if (pair.slave.empty()) {
        return SystemError{errno};
    }
    int error = applySettings(pair.slave.borrow(), settings);
    if (error == 0) {
        error = request(pair.slave.borrow(), TIOCSWINSZ, &size);
    }
    if (error != 0) {
        return SystemError{error};
    }
    return pair;
}

int LinuxTerminals::applySettings(int descriptor, const TerminalSettings& settings) {
    KernelTerminalSettings current{};
    if (const int error = request(descriptor, readTerminalSettings, &current); error != 0) {
        return error;
    }
    const KernelTerminalSettings translated = translateSettings(settings, current);
    return request(descriptor, writeTerminalSettings, &translated);
}

}  // namespace corvane
