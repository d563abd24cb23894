#include <string>

#include "tests/vm/debian/power_off_fixture.h"

namespace corvane::vm {
namespace {

/// A device whose keys the test works: what is written to a pipe in the guest. It stays for the
/// time of the test, as a button does.
class PowerButton : public PowerOffTest {
 protected:
    void TearDown() override {
        if (!machine().hasEnded()) {
            shell().check("kill $(pidof uhid-device) $(cat /run/keys.holder) || true");
        }
        PowerOffTest::TearDown();
    }

    void plugIn(const std::string& kind) {
        shell().check(
            "modprobe uhid; rm -f /run/keys /run/seen; mkfifo /run/keys; "
            "sleep infinity >/run/keys & echo $! >/run/keys.holder; "
            "uhid-device " +
            kind + " </run/keys >/run/seen 2>&1 &");
        awaitInGuest("head -n 1 /run/seen | cut -d ' ' -f 1", "ready");
    }
    /// Has the agent done with all devices and keys that there have been?
    void awaitSettledAgent() {
        shell().check("udevadm settle");
        awaitInGuest("cut -d ' ' -f 3 /proc/" + agentPid() + "/task/*/stat | sort -u", "S");
    }
    bool agentHasTheDevice() {
        return shell()
                   .run("ls -l /proc/" + agentPid() +
                        "/fd | grep -q \" $(head -n 1 /run/seen | cut -d ' ' -f 2)$\"")
                   .status == 0;
    }

    /// "press KEY" or "release"; a reader of the device sees this line of it. A keyboard's kernel
    /// driver repeats a key that is held, so that other lines may come first.
    void work(const std::string& action, const std::string& seen) {
        const int before = std::stoi(shell().check("wc -l </run/seen"));
        shell().check("echo " + action + " >/run/keys");
        awaitInGuest("tail -n +" + std::to_string(before + 1) + " /run/seen | grep -m 1 -x '" +
                         seen + "' || true",
                     seen);
    }
    /// The same when the guest does not live to tell.
    void workInBackground(const std::string& action) {
        shell().check("echo " + action + " >/run/keys &");
    }

    void expectNoShutdown() {
        awaitSettledAgent();
        // Whoever was asked has done it after this.
        shell().check(
            "busctl call org.freedesktop.login1 /org/freedesktop/login1 "
            "org.freedesktop.DBus.Peer Ping; busctl call org.freedesktop.systemd1 "
            "/org/freedesktop/systemd1 org.freedesktop.DBus.Peer Ping");
        EXPECT_EQ(shell().check("systemctl is-system-running; systemctl list-jobs --no-legend"),
                  "running");
        EXPECT_EQ(
            shell().check("journalctl --sync; journalctl -q -b -t systemd -t systemd-logind | "
                          "grep -ci -e 'powering' -e 'will power' || true"),
            "0");
        HostClient host = synchronisedHost();
        EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
    }
};

TEST_F(PowerButton, AReleaseDoesNothing) {
    shell().check("systemctl stop corvane.service");
    plugIn("consumer-control");
    work("press power", "scan 0xc0030 key 116 value 1");
    shell().check("systemctl start corvane.service");
    synchronisedHost();
    awaitSettledAgent();
    ASSERT_TRUE(agentHasTheDevice());
    work("release", "scan 0xc0030 key 116 value 0");
    expectNoShutdown();
}

TEST_F(PowerButton, OtherConsumerKeysDoNothing) {
    plugIn("consumer-control");
    awaitSettledAgent();
    ASSERT_TRUE(agentHasTheDevice());
    work("press 0xE9", "scan 0xc00e9 key 115 value 1");
    work("release", "scan 0xc00e9 key 115 value 0");
    expectNoShutdown();
}

TEST_F(PowerButton, AKeyboardsPowerKeyDoesNothing) {
    plugIn("keyboard");
    awaitSettledAgent();
    work("press power", "scan 0x70066 key 116 value 1");
    work("release", "scan 0x70066 key 116 value 0");
    expectNoShutdown();
}

TEST_F(PowerButton, AKeyboardsMediaKeysDoNothing) {
    plugIn("media-keyboard");
    awaitSettledAgent();
    work("press power", "scan 0xc0030 key 116 value 1");
    work("release", "scan 0xc0030 key 116 value 0");
    work("press menu", "scan 0xc0040 key 139 value 1");
    work("release", "scan 0xc0040 key 139 value 0");
    expectNoShutdown();
}

TEST_F(PowerButton, ASystemControlDoesNothing) {
    plugIn("system-control");
    awaitSettledAgent();
    work("press power", "scan 0x10081 key 116 value 1");
    work("release", "scan 0x10081 key 116 value 0");
    expectNoShutdown();
}

TEST_F(PowerButton, ThatOfTheMachinePowersOff) {
    HostClient host = synchronisedHost();
    writeFile(host);
    awaitSettledAgent();
    startClock();
    machine().qmp().execute("system_powerdown");
    expectPoweredOffInOrder();
}

TEST_F(PowerButton, AConsumerControlsPowerKeyPowersOff) {
    HostClient host = synchronisedHost();
    writeFile(host);
    plugIn("consumer-control");
    awaitSettledAgent();
    startClock();
    workInBackground("press power");
    expectPoweredOffInOrder();
}

TEST_F(PowerButton, AConsumerControlsMenuKeyPowersOff) {
    HostClient host = synchronisedHost();
    writeFile(host);
    plugIn("consumer-control");
    awaitSettledAgent();
    startClock();
    workInBackground("press menu");
    expectPoweredOffInOrder();
}

}  // namespace
}  // namespace corvane::vm
