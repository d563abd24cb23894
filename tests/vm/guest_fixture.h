#pragma once

#include <string>
#include <string_view>

#include <boost/json/value.hpp>
#include <gtest/gtest.h>

#include "tests/vm/support/virtual_machine.h"
#include "tests/vm/support/vsock_peer.h"

namespace corvane::vm {

/// The directory of the image under test: $CORVANE_VM_DIR, or the one of this build.
std::filesystem::path imageDirectory();

/// Boots a guest of its own for a test.
std::unique_ptr<VirtualMachine> bootGuest(const MachineOptions& options = {});

/// Base of all tests in a guest: shows the guest's log of a failed test.
class GuestTest : public ::testing::Test {
 protected:
    /// The guest whose log belongs to this test.
    void use(VirtualMachine& machine);
    /// The same for a guest that other tests have used before.
    void shareGuest(VirtualMachine& machine);
    void TearDown() override;

    VirtualMachine& machine() { return *machine_; }
    GuestShell& shell() { return machine_->shell(); }
    /// Where the guest's log ended when the test began.
    std::size_t logStart() const { return logStart_; }
    /// Waits for a line of this test in the guest's log.
    std::string awaitLog(std::string_view text) { return machine_->log().await(text, logStart_); }
    /// Runs a command of the guest's shell until its output is `expected`: for states of the guest
    /// that nothing announces. Throws HangError when it does not come to that.
    void awaitInGuest(const std::string& command, std::string_view expected);
    /// A new host, in step with the agent.
    HostClient synchronisedHost();
    /// The log of this test, complete up to now.
    std::string settledLog();

 private:
    VirtualMachine* machine_ = nullptr;
    std::size_t logStart_ = 0;
};

/// Tests that share one guest: the named port, no vsock. They leave the agent running and idle.
class SharedGuestTest : public GuestTest {
 protected:
    void SetUp() override;
};

/// Tests that share another guest, with vsock in which `vsockPeer` plays the host.
class SharedVsockGuestTest : public GuestTest {
 protected:
    void SetUp() override;
    VsockPeer& vsockPeer();
};

boost::json::value parse(std::string_view json);
boost::json::value errorResponse(std::string_view errorClass, std::string_view description);

}  // namespace corvane::vm
