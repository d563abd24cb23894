#pragma once

#include <sys/ptrace.h>
#include <sys/types.h>

#include <cstdint>
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

/// Whether the third argument of the call says how many bytes it transfers at most.
bool countsBytes(std::uint64_t number);
