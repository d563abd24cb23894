#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

/// Tests that begin without the package and may leave the guest without it.
class Package : public DebianTest {
 protected:
    void SetUp() override {
        startGuest();
        purgePackage();
    }

    /// All files of the guest but those in which dpkg, apt and the log keep their history.
    void listFiles(const std::string& listing) {
        shell().check(
            "find / /dev /run -xdev | grep -v -e ^/var/log -e ^/var/cache/apt "
            "-e ^/var/lib/apt -e ^/var/lib/dpkg/[a-z-]*-old -e ^/run/control "
            "-e ^/run/udev -e ^/run/systemd/journal -e ^/run/log -e ^/dev/char -e ^/root "
            "| sort >/root/" +
            listing);
    }
};

TEST_F(Package, InstallingItStartsTheAgentAtOnce) {
    ASSERT_EQ(state("is-active", "corvane.service"), "inactive");
    EXPECT_EQ(shell().check("ls /dev/tty.org.* 2>/dev/null || true"), "");
    installPackage("apt-get install -y");
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
    EXPECT_EQ(shell().check("readlink /proc/" + agentPid() + "/exe"), "/usr/sbin/corvane");
    HostClient host = synchronisedHost();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(Package, InstallingItWithoutThePortWaitsForNothing) {
    const std::string driver = "/sys/bus/virtio/drivers/virtio_console/";
    const std::string device = shell().check("cd " + driver + " && echo virtio*");
    shell().check("echo " + device + " >" + driver + "unbind; udevadm settle");
    ASSERT_NE(shell().run("test -e /dev/virtio-ports").status, 0);
    installPackage();
    EXPECT_EQ(property("corvane.service", "ActiveState"), "inactive");
    EXPECT_EQ(shell().check("systemctl list-jobs --no-legend"), "");
    // The port may come later: its name starts the agent.
    shell().check("echo " + device + " >" + driver + "bind");
    awaitInGuest("systemctl show --value -p SubState corvane.service", "running");
    HostClient host = synchronisedHost();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(Package, InstallingItAgainStartsTheNewAgent) {
    installPackage();
    const std::string before = agentPid();
    installPackage();
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
    EXPECT_NE(agentPid(), before);
    HostClient host = synchronisedHost();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(Package, RemovingItStopsTheAgentAndTakesThePortsNameAway) {
    installPackage();
    const std::string pid = agentPid();
    removePackage();
    EXPECT_NE(shell().run("test -e /proc/" + pid).status, 0);
    EXPECT_NE(shell().run("ls /dev/tty.org.*").status, 0);
    EXPECT_EQ(shell().run("test -e /dev/virtio-ports/org.qemu.guest_agent.0").status, 0);
    EXPECT_EQ(property("corvane.service", "LoadState"), "not-found");
    EXPECT_EQ(property("corvane.service", "ActiveState"), "inactive");
    // No unit is left that would be waited for or would fail at the next start.
    EXPECT_EQ(shell().check("systemctl list-units --all --plain --no-legend 'corvane*'"), "");
}

TEST_F(Package, InstallingItAfterARemovalStartsTheAgentOnce) {
    const std::string count =
        "journalctl --sync; journalctl -q -t systemd | grep -c 'Started corvane.service'";
    installPackage();
    removePackage();
    const int before = std::stoi(shell().check(count));
    installPackage();
    EXPECT_EQ(std::stoi(shell().check(count)), before + 1);
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
}

TEST_F(Package, PurgingItLeavesNothing) {
    listFiles("before");
    installPackage();
    {
        // Its folder for captured output.
        HostClient host = synchronisedHost();
        ExecClient exec(host);
        EXPECT_EQ(exec.outputOf("echo captured"), "captured");
    }
    EXPECT_EQ(shell().run("test -d /run/corvane").status, 0);
    purgePackage();
    listFiles("after");
    EXPECT_EQ(shell().check("diff /root/before /root/after || true"), "");
    EXPECT_EQ(shell().check("grep -rl corvane /etc /usr/lib/systemd /usr/lib/udev || true"), "");
    EXPECT_NE(shell().run("dpkg-query -W corvane").status, 0);
}

}  // namespace
}  // namespace corvane::vm
