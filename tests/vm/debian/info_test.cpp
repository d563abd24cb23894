#include <algorithm>
#include <string>
#include <vector>

#include <boost/json/value_to.hpp>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

const std::vector<std::string> vsockCommands = {"mirel-guest-file-vsock-read",
                                                "mirel-guest-file-vsock-write"};
constexpr char noVsockFile[] = "/etc/modprobe.d/no-vsock.conf";

/// What the agent says of itself, in guests that have more or less.
class InfoOnDebian : public DebianTest {
 protected:
    void TearDown() override {
        restoreSshUnits();
        shell().check(std::string("rm -f ") + noVsockFile);
        DebianTest::TearDown();
    }

    /// With a transport in the guest itself.
    void loadVsock() {
        shell().check(std::string("rm -f ") + noVsockFile + "; modprobe vsock_loopback");
    }
    /// Otherwise the kernel loads the module when somebody asks for a socket.
    void forbidVsock() {
        shell().check(std::string("echo 'install vsock /bin/false' >") + noVsockFile +
                      "; for module in vsock_loopback vmw_vsock_virtio_transport_common "
                      "vsock_diag vsock; do if [ -d /sys/module/$module ]; then rmmod $module; fi;"
                      " done; ! [ -d /sys/module/vsock ]");
    }

    /// What an SSH server that was never installed does not have: its units, the links to them, and
    /// the script of old of which systemd would make a unit.
    void hideSshUnits() {
        shell().check(
            "systemctl stop ssh.service; mkdir /root/away; cd /; "
            "tar -cf /root/away/units $(find etc/init.d etc/systemd/system usr/lib/systemd/system "
            "-name 'ssh.*' -o -name 'ssh@.*' -o -name sshd.service -o -path etc/init.d/ssh) "
            "--remove-files; systemctl daemon-reload");
    }
    void restoreSshUnits() {
        shell().check(
            "if [ -d /root/away ]; then tar -C / -xf /root/away/units; rm -r /root/away; "
            "systemctl daemon-reload; systemctl start ssh.service; fi");
    }

    std::vector<std::string> commands() {
        HostClient host = synchronisedHost();
        std::vector<std::string> names;
        const boost::json::value answer = answerTo(host, "guest-info");
        for (const auto& command : answer.at("return").at("supported_commands").as_array()) {
            names.push_back(boost::json::value_to<std::string>(command.at("name")));
        }
        return names;
    }

    static std::vector<std::string> allBut(const std::vector<std::string>& absent) {
        std::vector<std::string> names = {"guest-exec",
                                          "guest-exec-status",
                                          "guest-info",
                                          "guest-sync",
                                          "guest-sync-delimited",
                                          "guest-ping",
                                          "guest-file-open",
                                          "guest-file-close",
                                          "guest-file-read",
                                          "guest-file-write",
                                          "mirel-guest-file-vsock-read",
                                          "mirel-guest-file-vsock-write",
                                          "guest-file-seek",
                                          "guest-file-flush",
                                          "guest-network-get-interfaces",
                                          "guest-shutdown",
                                          "mirel-guest-set-remote-login",
                                          "guest-set-time",
                                          "guest-get-time",
                                          "mirel-guest-signal-pid"};
        std::erase_if(names, [&absent](const std::string& name) {
            return std::find(absent.begin(), absent.end(), name) != absent.end();
        });
        return names;
    }
};

TEST_F(InfoOnDebian, ListsAllTwentyCommandsWithVsockAndRemoteLogin) {
    loadVsock();
    EXPECT_EQ(commands(), allBut({}));
}

TEST_F(InfoOnDebian, ListsEighteenCommandsWithoutVsock) {
    forbidVsock();
    EXPECT_EQ(commands(), allBut(vsockCommands));
}

TEST_F(InfoOnDebian, ListsSeventeenCommandsWithoutVsockAndAnSshServer) {
    forbidVsock();
    hideSshUnits();
    std::vector<std::string> absent = vsockCommands;
    absent.emplace_back("mirel-guest-set-remote-login");
    EXPECT_EQ(commands(), allBut(absent));
    restoreSshUnits();
    EXPECT_EQ(commands(), allBut(vsockCommands));
}

TEST_F(InfoOnDebian, GoesOnListingRemoteLoginWhileItIsSwitchedOff) {
    loadVsock();
    disableUnit("ssh.service");
    EXPECT_EQ(commands(), allBut({}));
    enableUnit("ssh.service");
}

}  // namespace
}  // namespace corvane::vm
