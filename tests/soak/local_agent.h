#pragma once

#include <sys/types.h>

#include <string>

#include "tests/vm/soak/soak_target.h"

namespace corvane {

/// The agent's code in a process of its own, with the services of this machine that do it no harm:
/// programs, files, terminals, accounts, interfaces. Its channel is a Unix socket at which it waits
/// for one host after the other, and its vsock are Unix sockets, too. Ends with its scope.
class LocalAgent final : public vm::SoakTarget {
 public:
    /// Must be made before the process has a second thread.
    LocalAgent();
    ~LocalAgent() override;

    vm::HostClient connectHost() override { return vm::HostClient(directory_ + "/channel"); }
    [[nodiscard]] bool channelLosesNothing() const override { return true; }
    bool mayLeaveUnread() override { return true; }
    bool mayLeaveMuchUnread() override { return true; }
    std::string shell(const std::string& command) override;
    std::string processes() override;
    std::string zombies() override;
    [[nodiscard]] std::string captureDirectory() const override { return directory_ + "/captured"; }
    vm::VsockPeer* vsockPeer() override { return nullptr; }  // that one is of guests
    /// Plays the host at a port of the vsock.
    [[nodiscard]] vm::Descriptor listenAtVsock(unsigned port) const;
    [[nodiscard]] std::string user() const override;

    /// What the agent has logged of late.
    [[nodiscard]] std::string log() const;

 private:
    std::string directory_;
    pid_t process_ = -1;
};

}  // namespace corvane
