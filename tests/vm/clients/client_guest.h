#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tests/vm/clients/libvirt_daemon.h"
#include "tests/vm/support/guest_disk.h"
#include "tests/vm/support/guest_shell.h"

namespace corvane::vm {

/// A test guest as libvirt's machine: libvirt starts QEMU, and is the host at the agent's port.
/// What the tests themselves do in it goes over the control shell.
class ClientGuest {
 public:
    /// `image` is what vm/build or vm/build_debian made; `name` is libvirt's name of the machine.
    ClientGuest(LibvirtDaemon& daemon, std::string name, const std::filesystem::path& image);

    const std::string& name() const { return name_; }
    /// Starts it and waits until it runs. It must not be running.
    void start();
    /// Waits until it has started again by itself.
    void awaitRestart();
    /// Waits until QEMU has ended.
    void awaitEnd();
    bool isRunning() const { return process_ > 0; }

    GuestShell& shell() { return *shell_; }
    /// The disk of a Debian guest.
    GuestDisk& disk() { return *disk_; }
    /// What the guest has written to its console since the start of this object.
    std::string console() const { return console_->since(0); }

 private:
    std::string description() const;

    LibvirtDaemon& daemon_;
    std::string name_;
    std::filesystem::path directory_;
    std::optional<GuestDisk> disk_;
    std::unique_ptr<ConsoleLog> console_;
    std::unique_ptr<GuestShell> shell_;
    pid_t process_ = -1;
};

}  // namespace corvane::vm
