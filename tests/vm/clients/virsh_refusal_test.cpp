// The commands of virsh that do not work with this agent: what it is asked, and what is shown.
#include <fstream>
#include <ostream>
#include <string>

#include "tests/vm/clients/clients_fixture.h"

namespace corvane::vm {
namespace {

struct Refusal {
    const char* testName;
    /// The words behind "virsh"; GUEST is the guest's name, KEYS a file with an SSH key.
    std::vector<std::string> words;
    /// What the agent gets: the name of a command, and the members of the request behind it.
    std::string command;
    std::string arguments = {};
    /// What virsh writes before it says that the agent does not know the command.
    std::string remark = {};
    /// What it writes instead, when not empty.
    std::string wholeError = {};
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.testName;
}

class VirshRefusal : public ClientsTest, public ::testing::WithParamInterface<Refusal> {
 protected:
    std::vector<std::string> words() {
        std::vector<std::string> words = GetParam().words;
        for (std::string& word : words) {
            if (word == "GUEST") {
                word = guest().name();
            } else if (word == "KEYS") {
                word = daemon().directory() / "keys";
                std::ofstream(word) << "ssh-ed25519 AAAA tester\n";
            }
        }
        return words;
    }
};

TEST_P(VirshRefusal, IsShownWithItsReason) {
    const Refusal& refusal = GetParam();
    const ClientOutcome outcome = virsh(words());
    EXPECT_EQ(outcome.result.status, 1);
    const std::string expected =
        refusal.wholeError.empty()
            ? refusal.remark + "error: internal error: unable to execute QEMU agent command '" +
                  refusal.command + "': Invalid command '" + refusal.command + "'\n"
            : refusal.wholeError;
    EXPECT_EQ(outcome.result.errors, expected);
    EXPECT_EQ(outcome.sent, std::vector<std::string>{"{\"execute\":\"" + refusal.command + '"' +
                                                     refusal.arguments + '}'});
    expectServed();
}

INSTANTIATE_TEST_SUITE_P(
    Command, VirshRefusal,
    ::testing::Values(
        Refusal{.testName = "UnknownCommand",
                .words = {"qemu-agent-command", "GUEST", "--timeout", "60",
                          R"({"execute":"guest-nothing"})"},
                .command = "guest-nothing"},
        Refusal{.testName = "GuestinfoUser",
                .words = {"guestinfo", "GUEST", "--user"},
                .command = "guest-get-users"},
        Refusal{.testName = "GuestinfoOs",
                .words = {"guestinfo", "GUEST", "--os"},
                .command = "guest-get-osinfo"},
        Refusal{.testName = "GuestinfoTimezone",
                .words = {"guestinfo", "GUEST", "--timezone"},
                .command = "guest-get-timezone"},
        Refusal{.testName = "GuestinfoHostname",
                .words = {"guestinfo", "GUEST", "--hostname"},
                .command = "guest-get-host-name"},
        Refusal{.testName = "GuestinfoFilesystem",
                .words = {"guestinfo", "GUEST", "--filesystem"},
                .command = "guest-get-fsinfo"},
        Refusal{.testName = "GuestinfoDisk",
                .words = {"guestinfo", "GUEST", "--disk"},
                .command = "guest-get-disks"},
        Refusal{.testName = "Domhostname",
                .words = {"domhostname", "GUEST", "--source", "agent"},
                .command = "guest-get-host-name",
                .wholeError = "error: failed to get hostname\n"
                              "error: no hostname found: no hostname found for domain debian\n"},
        // libvirt expects the bare number of nanoseconds; here it is in an object.
        Refusal{.testName = "Domtime",
                .words = {"domtime", "GUEST"},
                .command = "guest-get-time",
                .wholeError = "error: internal error: malformed return value\n"},
        // It asks the guest to read its hardware clock, which this agent never does.
        Refusal{.testName = "DomtimeSync",
                .words = {"domtime", "GUEST", "--sync"},
                .command = "guest-set-time",
                .wholeError =
                    "error: internal error: unable to execute QEMU agent command 'guest-set-time': "
                    "time is not a number\n"},
        Refusal{.testName = "Domfsinfo",
                .words = {"domfsinfo", "GUEST"},
                .command = "guest-get-fsinfo",
                .remark = "error: Unable to get filesystem information\n"},
        Refusal{.testName = "Domfsfreeze",
                .words = {"domfsfreeze", "GUEST"},
                .command = "guest-fsfreeze-freeze",
                .remark = "error: Unable to freeze filesystems\n"},
        Refusal{.testName = "DomfsfreezeOfOne",
                .words = {"domfsfreeze", "GUEST", "/"},
                .command = "guest-fsfreeze-freeze-list",
                .arguments = R"(,"arguments":{"mountpoints":["/"]})",
                .remark = "error: Unable to freeze filesystems\n"},
        Refusal{.testName = "Domfsthaw",
                .words = {"domfsthaw", "GUEST"},
                .command = "guest-fsfreeze-thaw",
                .remark = "error: Unable to thaw filesystems\n"},
        Refusal{.testName = "QuiescedSnapshot",
                .words = {"snapshot-create-as", "GUEST", "one", "--disk-only", "--quiesce",
                          "--no-metadata"},
                .command = "guest-fsfreeze-freeze"},
        Refusal{.testName = "Domfstrim",
                .words = {"domfstrim", "GUEST"},
                .command = "guest-fstrim",
                .arguments = R"(,"arguments":{"minimum":0})",
                .remark = "error: Unable to invoke fstrim\n"},
        Refusal{.testName = "SetUserPassword",
                .words = {"set-user-password", "GUEST", "root", "secret"},
                .command = "guest-set-user-password",
                .arguments =
                    R"(,"arguments":{"crypted":false,"username":"root","password":"c2VjcmV0"})"},
        Refusal{
            .testName = "SetUserPasswordEncrypted",
            .words = {"set-user-password", "GUEST", "root", "abc", "--encrypted"},
            .command = "guest-set-user-password",
            .arguments = R"(,"arguments":{"crypted":true,"username":"root","password":"YWJj"})"},
        Refusal{.testName = "Guestvcpus",
                .words = {"guestvcpus", "GUEST"},
                .command = "guest-get-vcpus"},
        Refusal{.testName = "GuestvcpusDisable",
                .words = {"guestvcpus", "GUEST", "--disable", "--cpulist", "1"},
                .command = "guest-get-vcpus"},
        Refusal{.testName = "SetvcpusGuest",
                .words = {"setvcpus", "GUEST", "1", "--guest"},
                .command = "guest-get-vcpus"},
        Refusal{.testName = "VcpucountGuest",
                .words = {"vcpucount", "GUEST", "--guest"},
                .command = "guest-get-vcpus"},
        Refusal{.testName = "GetUserSshkeys",
                .words = {"get-user-sshkeys", "GUEST", "root"},
                .command = "guest-ssh-get-authorized-keys",
                .arguments = R"(,"arguments":{"username":"root"})"},
        Refusal{
            .testName = "SetUserSshkeys",
            .words = {"set-user-sshkeys", "GUEST", "root", "--file", "KEYS"},
            .command = "guest-ssh-add-authorized-keys",
            .arguments =
                R"(,"arguments":{"username":"root","keys":["ssh-ed25519 AAAA tester",""],"reset":false})"},
        Refusal{.testName = "SetUserSshkeysRemove",
                .words = {"set-user-sshkeys", "GUEST", "root", "--remove", "--file", "KEYS"},
                .command = "guest-ssh-remove-authorized-keys",
                .arguments =
                    R"(,"arguments":{"username":"root","keys":["ssh-ed25519 AAAA tester",""]})"},
        Refusal{.testName = "SuspendToMemory",
                .words = {"dompmsuspend", "GUEST", "mem"},
                .command = "guest-suspend-ram",
                .remark = "error: Domain 'debian' could not be suspended\n"},
        Refusal{.testName = "SuspendToDisk",
                .words = {"dompmsuspend", "GUEST", "disk"},
                .command = "guest-suspend-disk",
                .remark = "error: Domain 'debian' could not be suspended\n"},
        Refusal{.testName = "SuspendHybrid",
                .words = {"dompmsuspend", "GUEST", "hybrid"},
                .command = "guest-suspend-hybrid",
                .remark = "error: Domain 'debian' could not be suspended\n"}),
    [](const auto& refusal) { return std::string(refusal.param.testName); });

}  // namespace
}  // namespace corvane::vm
