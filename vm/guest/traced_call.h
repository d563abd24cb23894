#pragma once

#include <sys/ptrace.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

/// What PTRACE_GET_SYSCALL_INFO says.
using CallInfo = __ptrace_syscall_info;

/// A system call that a traced task is about to make, as one line: its name and what it is made on,
/// such as "openat /dev/null", "read pipe" or "fcntl F_SETFL /dev/vport#p#". Numbers within names
/// are shown as "#", so that the same step of another run gives the same line. A call whose name is
/// not known here is shown by its number.
std::string describeCall(pid_t task, const CallInfo& call);

/// Whether closing is what the call does: it has taken effect whatever it returns.
bool closesDescriptor(std::uint64_t number);

/// Whether the call is brk(2). It knows no error: it answers where the break is, as it does when it
/// is asked for address 0.
bool movesTheBreak(std::uint64_t number);

/// What makes a call transfer half of the bytes that it would, in truth.
struct HalvedCall {
    std::uint64_t count = 0;  ///< its third argument for that: bytes, or pieces of a list of them
    /// The word of the task's memory, for as long as the call takes, that is the length of the last
    /// of these pieces, what it is and what it must be; address 0 where there are no pieces.
    std::uint64_t address = 0;
    std::uint64_t whole = 0;
    std::uint64_t half = 0;
};

/// Nothing for a call that transfers no bytes, or none that could be halved: a single one, or a
/// message (recvmsg), which comes whole or not at all.
std::optional<HalvedCall> halve(pid_t task, const CallInfo& call);
