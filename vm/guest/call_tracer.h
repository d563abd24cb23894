#pragma once

#include <sys/types.h>
#include <sys/user.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "vm/guest/traced_call.h"

/// What is to go wrong, once: a system call of the agent.
struct Fault {
    std::string call;         ///< as CallTracer records it: a role and what describeCall says
    unsigned occurrence = 1;  ///< which of these calls, counted from the last `begin`
    /// The error that it returns without having been made; closing is done nevertheless, as the
    /// kernel does it. 0 lets it transfer half of its bytes.
    int error = 0;
};

/// Runs the agent under ptrace(2), counts the system calls that it makes, and makes one of them
/// fail. Programs that the agent starts are let go when they have begun.
///
/// A call is recorded with the role of the task that makes it: "main"; "log", "button" and
/// "reaper", the threads in the order in which they are made; "child", a process on its way to its
/// program; "relay", a process that serves a terminal.
class CallTracer {
 public:
    CallTracer() = default;
    CallTracer(const CallTracer&) = delete;
    CallTracer& operator=(const CallTracer&) = delete;

    /// Starts the agent, which must not be running. Counting begins afresh with its first own call:
    /// those of the loader and of the libraries' initialisation before main() are left out.
    void start(const std::string& program, const std::string& outputPath);
    /// Orders the agent to end.
    void kill() const;

    /// Forgets what was counted, and sets a fault or none.
    void begin(std::optional<Fault> fault);

    /// To be called whenever a child has something to tell. Handles all there is.
    void handleEvents();

    [[nodiscard]] pid_t agent() const { return agent_; }
    [[nodiscard]] bool isRunning() const { return agent_ > 0; }
    /// How the agent has ended: its exit status, or 128 and the signal.
    [[nodiscard]] int exitStatus() const { return exitStatus_; }
    [[nodiscard]] bool faultHappened() const { return faultHappened_; }
    [[nodiscard]] const std::map<std::string, unsigned>& counts() const { return counts_; }

 private:
    struct Task {
        std::string role;    ///< empty until its parent's event has told
        bool waits = false;  ///< stopped at its start until its role is known
        bool mutes = true;   ///< the SIGSTOP of its start is not for it
        /// Where it is in the call that is made to fail.
        enum class Failing { no, refused, answered } failing = Failing::no;
        user_regs_struct registers{};  ///< of that call, as it was made
        HalvedCall halved{};           ///< where it transfers half of its bytes
    };

    void handleStop(pid_t task, int status);
    void handleEvent(pid_t task, unsigned event);
    void nameTask(pid_t task, std::string role);
    void handleCall(pid_t task);
    void enterCall(pid_t task, const CallInfo& call);
    void leaveCall(pid_t task);
    void spoil(pid_t task, const CallInfo& call);
    static void resume(pid_t task, int signal = 0);

    pid_t agent_ = -1;
    int exitStatus_ = 0;
    bool counting_ = false;
    unsigned threads_ = 0;
    std::map<pid_t, Task> tasks_;
    std::map<std::string, unsigned> counts_;
    std::optional<Fault> fault_;
    bool faultHappened_ = false;
};
