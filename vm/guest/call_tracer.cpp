// Of x86-64 alone, as the guests of the tests are: the registers have other names elsewhere.

#include "vm/guest/call_tracer.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

constexpr long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                         PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
constexpr int callStop = SIGTRAP | 0x80;

[[noreturn]] void runAgent(const char* program, const char* outputPath) {
    const int input = ::open("/dev/null", O_RDONLY);
    const int output = ::open(outputPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setsid();
    ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    ::raise(SIGSTOP);
    ::execl(program, program, nullptr);
    std::perror(program);
    ::_exit(127);
}

user_regs_struct registersOf(pid_t task) {
    user_regs_struct registers{};
    ::ptrace(PTRACE_GETREGS, task, nullptr, &registers);
    return registers;
}

void setRegisters(pid_t task, user_regs_struct registers) {
    ::ptrace(PTRACE_SETREGS, task, nullptr, &registers);
}

/// Sets a word of the task's memory, unless the address is 0.
void setWord(pid_t task, std::uint64_t address, std::uint64_t word) {
    if (address != 0) {
        ::ptrace(PTRACE_POKEDATA, task, address, word);
    }
}

/// A process that the agent forks: glibc's fork asks for the child's id to be stored, the agent's
/// own call for a program does not.
std::string processRole(pid_t parent) {
    return (registersOf(parent).rdi & CLONE_CHILD_SETTID) != 0 ? "relay" : "child";
}

}  // namespace

void CallTracer::start(const std::string& program, const std::string& outputPath) {
    const pid_t child = ::fork();
    if (child == 0) {
        runAgent(program.c_str(), outputPath.c_str());
    }
    agent_ = child;
    counting_ = false;
    threads_ = 0;
    tasks_[child] = {.role = "main", .mutes = false};
    int status = 0;
    ::waitpid(child, &status, __WALL);  // the SIGSTOP
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, options);
    resume(child);
}

void CallTracer::kill() const {
    if (isRunning()) {
        ::kill(agent_, SIGKILL);
    }
}

void CallTracer::begin(std::optional<Fault> fault) {
    counts_.clear();
    fault_ = std::move(fault);
    faultHappened_ = false;
}

void CallTracer::handleEvents() {
    int status = 0;
    for (pid_t task = 0; (task = ::waitpid(-1, &status, __WALL | WNOHANG)) > 0;) {
        if (WIFSTOPPED(status)) {
            handleStop(task, status);
            continue;
        }
        tasks_.erase(task);
        if (task == agent_) {
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            agent_ = -1;
        }
    }
}

void CallTracer::handleStop(pid_t task, int status) {
    const int signal = WSTOPSIG(status);
    const auto event = static_cast<unsigned>(status) >> 16U;
    Task& entry = tasks_[task];
    if (signal == callStop) {
        handleCall(task);
    } else if (event != 0) {
        handleEvent(task, event);
    } else if (entry.mutes && signal == SIGSTOP) {
        entry.mutes = false;
        entry.waits = entry.role.empty();
        if (!entry.waits) {
            resume(task);
        }
    } else {
        resume(task, signal);
    }
}

void CallTracer::handleEvent(pid_t task, unsigned event) {
    unsigned long made = 0;
    ::ptrace(PTRACE_GETEVENTMSG, task, nullptr, &made);
    if (event == PTRACE_EVENT_EXEC && task != agent_) {
        // It has become its program, which is none of ours.
        tasks_.erase(task);
        ::ptrace(PTRACE_DETACH, task, nullptr, nullptr);
        return;
    }
    if (event == PTRACE_EVENT_CLONE) {
        constexpr const char* roles[] = {"log", "button", "reaper"};
        const unsigned place = threads_++;
        nameTask(static_cast<pid_t>(made), place < std::size(roles) ? roles[place] : "thread");
    } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK) {
        nameTask(static_cast<pid_t>(made), processRole(task));
    }
    resume(task);
}

void CallTracer::nameTask(pid_t task, std::string role) {
    Task& entry = tasks_[task];
    entry.role = std::move(role);
    if (std::exchange(entry.waits, false)) {
        resume(task);
    }
}

void CallTracer::handleCall(pid_t task) {
    CallInfo call{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, task, sizeof call, &call);
    if (call.op == PTRACE_SYSCALL_INFO_ENTRY) {
        enterCall(task, call);
    } else if (call.op == PTRACE_SYSCALL_INFO_EXIT) {
        leaveCall(task);
    }
    resume(task);
}

void CallTracer::enterCall(pid_t task, const CallInfo& call) {
    // main() begins with a look at the standard descriptors.
    counting_ = counting_ || (call.entry.nr == SYS_fcntl && call.entry.args[1] == F_GETFD);
    if (!counting_) {
        return;
    }
    const std::string line = tasks_[task].role + ' ' + describeCall(task, call);
    const unsigned occurrence = ++counts_[line];
    if (fault_ && !faultHappened_ && fault_->occurrence == occurrence && fault_->call == line) {
        spoil(task, call);
    }
}

void CallTracer::spoil(pid_t task, const CallInfo& call) {
    Task& entry = tasks_[task];
    entry.registers = registersOf(task);
    entry.failing = Task::Failing::refused;
    user_regs_struct changed = entry.registers;
    if (fault_->error == 0) {
        // The kernel transfers so much less in truth.
        const auto halved = halve(task, call);
        if (!halved) {
            entry.failing = Task::Failing::no;
            return;
        }
        changed.rdx = halved->count;
        entry.halved = *halved;
        setWord(task, halved->address, halved->half);
        entry.failing = Task::Failing::answered;
    } else if (movesTheBreak(call.entry.nr)) {
        changed.rdi = 0;
        entry.failing = Task::Failing::answered;
    } else if (!closesDescriptor(call.entry.nr)) {
        changed.orig_rax = ~0ULL;  // no call at all
    }
    setRegisters(task, changed);
    faultHappened_ = true;
}

void CallTracer::leaveCall(pid_t task) {
    Task& entry = tasks_[task];
    const auto failing = std::exchange(entry.failing, Task::Failing::no);
    if (failing == Task::Failing::no) {
        return;
    }
    user_regs_struct registers = registersOf(task);
    // The caller relies on its arguments to be left alone.
    registers.rdi = entry.registers.rdi;
    registers.rdx = entry.registers.rdx;
    const HalvedCall halved = std::exchange(entry.halved, {});
    setWord(task, halved.address, halved.whole);
    if (failing == Task::Failing::refused) {
        registers.rax = static_cast<unsigned long long>(-static_cast<long long>(fault_->error));
    }
    setRegisters(task, registers);
}

void CallTracer::resume(pid_t task, int signal) {
    ::ptrace(PTRACE_SYSCALL, task, nullptr, signal);
}
