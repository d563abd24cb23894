#include <chrono>
#include <iostream>
#include <string>

#include "tests/vm/guest_fixture.h"
#include "tests/vm/soak/soak_report.h"

namespace corvane::vm {
namespace {

class GuestUnderLoad final : public SoakTarget {
 public:
    explicit GuestUnderLoad(VirtualMachine& machine) : machine_(machine), vsockPeer_(machine) {}

    HostClient connectHost() override { return machine_.connectHost(); }
    /// When a host hangs up QEMU reads up to 4096 bytes more of what it has sent, and closes.
    [[nodiscard]] bool channelLosesNothing() const override { return false; }
    bool mayLeaveUnread() override { return unreadLeft_-- > 0; }
    bool mayLeaveMuchUnread() override { return muchUnreadLeft_-- > 0; }
    std::string shell(const std::string& command) override {
        // A guest under load, on a machine under load, has little time for this.
        return machine_.shell().check("agent=$(service pid); " + command, std::chrono::minutes(10));
    }
    std::string processes() override {
        // Those of the kernel come and go, and have no memory. Not through a pipe: its other end
        // may or may not be there yet when the processes are looked for.
        return shell("set -- $(grep -ls '^VmSize' /proc/[0-9]*/status); echo $#");
    }
    std::string zombies() override {
        return shell("grep -ls '^State:.Z' /proc/[0-9]*/status | wc -l");
    }
    [[nodiscard]] std::string captureDirectory() const override { return "/run/corvane"; }
    VsockPeer* vsockPeer() override { return &vsockPeer_; }
    [[nodiscard]] std::string user() const override { return "guest"; }

 private:
    VirtualMachine& machine_;
    VsockPeer vsockPeer_;
    /// Of the port's 128 buffers QEMU loses one with each host that leaves while it is passing on a
    /// write; without any, the port takes no output until the guest starts anew. A host that leaves
    /// much unread costs one, and about one in a hundred of the others (128 of 14,546).
    long muchUnreadLeft_ = 30;
    long unreadLeft_ = 5000;
};

/// A guest of its own. Its log stays in the guest, in memory: writing it to the console would take
/// most of the time. There are few process ids, so that they come again and again.
class RandomLoad : public GuestTest {
 protected:
    void SetUp() override {
        guest_ = bootGuest({.vsockLoopback = true});
        use(*guest_);
        synchronisedHost().disconnect();
        shell().check(
            "kill $(pidof syslogd); while pidof syslogd; do usleep 10000; done; syslogd -S -C1000 "
            "&&"
            "echo 4096 >/proc/sys/kernel/pid_max && service restart");
    }

    /// Where each thread of the agent is, and how the kernel sees the port.
    std::string agentState() {
        return shell().check(
            "agent=$(service pid); cd /proc/$agent/task && for thread in *; do"
            " echo \"$(cat $thread/comm): $(cat $thread/wchan), $(cat $thread/syscall)\"; done;"
            "ls -l /proc/$agent/fd | sed 's/.* \\([0-9]* -> \\)/\\1/';"
            "mount -t debugfs none /sys/kernel/debug 2>/dev/null;"
            "tail -n 20 /sys/kernel/debug/virtio-ports/*");
    }

    /// What the guest has logged of late.
    std::string guestLog() {
        return shell().check(
            "logread | tail -n 100 | cut -c 1-300;"
            "echo 'standard error:'; tail -n 20 /run/log/agent.output | cut -c 1-300");
    }

 private:
    std::unique_ptr<VirtualMachine> guest_;
};

TEST_F(RandomLoad, OfHostsThatVanishAtAnyByteLeavesNothingBehind) {
    const std::uint64_t seed = soakSeed();
    const std::chrono::seconds span(soakNumber("CORVANE_SOAK_SECONDS", 20));
    std::cout << "seed " << seed << std::endl;
    RecordProperty("seed", std::to_string(seed));
    GuestUnderLoad target(machine());
    SoakLoad load(target, seed);
    try {
        EXPECT_EQ(soak(target, load, std::chrono::seconds(10), span), "");
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what();
    }
    if (HasFailure()) {
        std::cerr << "seed " << seed << "\n"
                  << load.figures() << "the last requests and answers:\n"
                  << load.lastTraffic() << "the agent:\n"
                  << agentState() << "\nthe guest's log:\n"
                  << guestLog() << "\n";
    }
}

}  // namespace
}  // namespace corvane::vm
