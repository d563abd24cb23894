#pragma once

#include <string>
#include <vector>

#include <boost/json/value.hpp>
#include <gtest/gtest.h>

#include "tests/vm/clients/client_guest.h"

namespace corvane::vm {

/// What came of a command of a client's.
struct ClientOutcome {
    ProgramResult result;
    /// The requests that the agent has got for it, without those that bring both in step.
    std::vector<std::string> sent;
};

/// The Debian guest under libvirt, with the agent's package. All tests share it and its daemon.
class ClientsTest : public ::testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

    static LibvirtDaemon& daemon();
    static ClientGuest& guest();
    /// The guest that lives in memory and has no service manager.
    static ClientGuest& smallGuest();
    GuestShell& shell() { return guest().shell(); }

    /// Runs a command of virsh, the guest's name among its words.
    ClientOutcome virsh(const std::vector<std::string>& words);
    /// Has virsh send a request as it stands, with time enough to be answered here.
    ClientOutcome request(const std::string& json);
    /// Tests that a request of libvirt's is answered.
    void expectServed();

    /// Makes a step that has the agent open its port anew, and waits until libvirt knows.
    template <typename Step>
    void reconnect(const Step& step) {
        const std::size_t mark = daemon().log().end();
        step();
        awaitConnected(mark);
    }
    void restartAgent();
    /// Waits until libvirt has connected to an agent, after this place in its log.
    static void awaitConnected(std::size_t mark);
    /// How often libvirt has brought itself in step with an agent since `mark`.
    static std::size_t synchronisations(std::size_t mark);
    /// What libvirt has sent to agents since then.
    static std::vector<std::string> requestsSince(std::size_t mark);

 private:
    std::size_t mark_ = 0;
};

}  // namespace corvane::vm
