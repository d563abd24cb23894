#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "tests/vm/support/guest_shell.h"

namespace corvane::vm {

/// A system call that is to fail once: see vm/guest/call_tracer.h.
struct InjectedFault {
    std::string call;         ///< a role, the call's name and what it is made on
    unsigned occurrence = 1;  ///< counted from 1
    int error = 0;            ///< an errno value; 0 is a transfer of half the bytes
};

/// How the agent is, and what it has done since the last `begin`.
struct TracerReport {
    pid_t agent = -1;    ///< -1 when it does not run
    int exitStatus = 0;  ///< of its last end
    bool faultHappened = false;
    int descriptors = 0;
    int children = 0;
    std::map<std::string, unsigned> calls;  ///< how often each was made
};

/// The tool in the guest that runs the agent and makes its system calls fail, in the place of the
/// agent's service.
class FaultTracer {
 public:
    /// Starts the tool. The guest must have been booted without its agent running.
    explicit FaultTracer(GuestShell& shell);

    /// Ends the agent that runs, if any.
    void endAgent();
    /// Ends the agent that runs, if any, and starts another; its calls are counted from its main()
    /// on. With or without a fault.
    void restart(const InjectedFault* fault = nullptr);
    /// Counts afresh, with or without a fault.
    void begin(const InjectedFault* fault = nullptr);
    /// What was counted; no fault is set any more.
    TracerReport report();
    /// Waits for the agent's end.
    TracerReport awaitEnd();

 private:
    TracerReport give(const std::string& orders);

    GuestShell& shell_;
};

}  // namespace corvane::vm
