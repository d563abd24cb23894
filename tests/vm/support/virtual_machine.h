#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/vm/support/console_log.h"
#include "tests/vm/support/guest_shell.h"
#include "tests/vm/support/host_client.h"
#include "tests/vm/support/qmp_client.h"

namespace corvane::vm {

/// What a guest is made of, beyond what all have in common.
struct MachineOptions {
    /// The disk of a Debian guest (see vm/build_debian), which is written to; such a guest can
    /// restart within its machine. Without one the guest is a small one that lives in memory.
    std::filesystem::path disk = {};
    /// Further words of the kernel's command line.
    std::vector<std::string> kernelWords = {};
    /// Arguments of QEMU's -fw_cfg, one for each entry.
    std::vector<std::string> firmwareEntries = {};
    /// The agent's device is a console (/dev/hvc0) instead of the named port.
    bool console = false;
    /// vsock with a transport that reaches listeners in the guest itself as cid 2, and a port
    /// for VsockPeer, which plays the host there.
    bool vsockLoopback = false;
    /// The agent runs from the start; otherwise it waits for "service start".
    bool startAgent = true;
    /// The machine ends with the process that started it.
    bool endWithParent = true;
};

/// A guest. Ends QEMU and removes its directory at the end of its life, unless left alone.
class VirtualMachine {
 public:
    /// Boots the image of `imageDirectory` (see vm/build) and waits until its services run.
    VirtualMachine(const std::filesystem::path& imageDirectory, const MachineOptions& options);
    VirtualMachine(const VirtualMachine&) = delete;
    VirtualMachine& operator=(const VirtualMachine&) = delete;
    ~VirtualMachine();

    GuestShell& shell() { return *shell_; }
    ConsoleLog& log() { return *log_; }
    QmpClient& qmp() { return *qmp_; }
    /// A new host at the agent's channel. QEMU serves one at a time: the next waits for its end.
    HostClient connectHost() const { return HostClient(channelPath()); }

    pid_t processId() const { return process_; }
    const std::filesystem::path& directory() const { return directory_; }
    std::string channelPath() const { return directory_ / "agent"; }
    /// QEMU's socket of the port that VsockPeer uses.
    std::string bridgePath() const { return directory_ / "bridge"; }

    /// Waits until everything that was logged so far has reached the log; returns its end.
    std::size_t settleLog();
    /// Orders the guest to power off and waits for QEMU's end.
    void powerOff();
    /// Waits until the guest has powered itself off and QEMU has ended; throws HangError when it
    /// does not. The log can still be read.
    void awaitEnd(Limit limit = hangLimit);
    bool hasEnded() const { return process_ < 0; }
    /// Waits until the guest, which is restarting, has started again. The next host is a new one.
    void awaitRestart();
    /// Leaves QEMU running when this object ends.
    void leaveRunning();

 private:
    void start(const std::filesystem::path& imageDirectory, const MachineOptions& options);
    void end();

    std::filesystem::path directory_;
    bool leftRunning_ = false;
    pid_t process_ = -1;
    std::unique_ptr<ConsoleLog> log_;
    std::unique_ptr<GuestShell> shell_;
    std::unique_ptr<QmpClient> qmp_;
    unsigned markers_ = 0;
};

}  // namespace corvane::vm
