#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "tests/vm/guest_fixture.h"
#include "tests/vm/support/exec_client.h"
#include "tests/vm/support/wire_terminal.h"

namespace corvane::vm {

/// Tests of programs in the guest, with one host at the channel. They leave no program behind:
/// each waits for the end of what it has started, and the agent's having no child is checked.
class ExecTest : public SharedVsockGuestTest {
 protected:
    using Arguments = ExecClient::Arguments;

    void SetUp() override;
    void TearDown() override;

    ExecClient& exec() { return *exec_; }

    /// A command of the guest's shell that prints how many children the agent has, ended ones that
    /// it has not reaped among them.
    static std::string countChildren();
    /// A command of the guest's shell that prints how many descriptors the agent has.
    static std::string countDescriptors();

    /// Starts the agent anew; it serves the test's host when this returns.
    void restartAgent();

    /// Waits until a started child has become its program: until then its streams may still be the
    /// agent's.
    void awaitProgram(pid_t pid, const std::string& path = "/bin/busybox");
    /// Ends a program for good and collects its end.
    void end(pid_t pid);

    /// Starts a program whose streams are a connection to `vsockPeer`, and waits for that.
    pid_t startOnVsock(Arguments arguments);
    /// The same with a terminal between the program and the connection.
    pid_t startOnTerminal(Arguments arguments, const WireTerminal& terminal = cookedTerminal);

    static constexpr int terminalRows = 30;
    static constexpr int terminalColumns = 100;

 private:
    std::unique_ptr<HostClient> host_;
    std::unique_ptr<ExecClient> exec_;
};

/// Reproducible bytes without a pattern.
std::string randomBytes(std::size_t count);

}  // namespace corvane::vm
