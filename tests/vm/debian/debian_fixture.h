#pragma once

#include <string>

#include "tests/vm/guest_fixture.h"
#include "tests/vm/support/exec_client.h"
#include "tests/vm/support/guest_disk.h"

namespace corvane::vm {

/// The Debian guest: one disk for all tests, and one machine at a time that runs from it. A test
/// that powers the guest off leaves the next one to start it again.
class DebianTest : public GuestTest {
 protected:
    /// The guest runs, and the agent's package is installed in it.
    void SetUp() override;

    GuestDisk& disk();

    /// The guest runs, with the package or without it.
    void startGuest();
    /// Installs the package with "dpkg -i", or with "apt-get install -y", which is slow there.
    void installPackage(const std::string& program = "dpkg -i");
    /// Takes the package out of the guest. It need not be there to be purged.
    void removePackage();
    void purgePackage();

    /// The value of a property of a unit, as `systemctl show` gives it.
    std::string property(const std::string& unit, const std::string& name);
    /// What `systemctl VERB UNIT` prints in one line: "enabled", "inactive" and the like.
    std::string state(const std::string& verb, const std::string& unit);
    /// What `systemctl enable --now` and `systemctl disable --now` come to, without the seconds
    /// that those spend on reading all units anew.
    void enableUnit(const std::string& unit);
    void disableUnit(const std::string& unit);
    std::string agentPid() { return property("corvane.service", "MainPID"); }

    /// Sends a request without arguments.
    static boost::json::value answerTo(HostClient& host, const std::string& command,
                                       Limit limit = hangLimit);
    /// What the agent answers when all is well and there is nothing to tell.
    static const boost::json::value emptyReturn;
};

}  // namespace corvane::vm
