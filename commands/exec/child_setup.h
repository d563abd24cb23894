#pragma once

#include <sys/types.h>

namespace corvane {

/// What a child does between its start and its program. Everything is borrowed and must stay until
/// the child has started its program or has ended.
struct ChildSetup {
    int standardInput = -1;
    int standardOutput = -1;
    int standardError = -1;
    /// Descriptors that the program gets beside its standard ones; -1 for none.
    int kept[2] = {-1, -1};  // NOLINT: no code of the library's may run in the child
    int untilStart = -1;     ///< stays open until the child has become its program
    const char* workingDirectory = nullptr;   ///< null: stays where it is
    const gid_t* group = nullptr;             ///< null: keeps ours
    const uid_t* user = nullptr;              ///< null: keeps ours
    const char* const* candidates = nullptr;  ///< paths to try one after the other, up to a null
    char* const* arguments = nullptr;         ///< argv, up to a null
    char* const* environment = nullptr;       ///< up to a null
    /// argv of a shell that runs a script without "#!": the shell, a place for the script's path,
    /// the script's arguments, a null.
    const char** shellArguments = nullptr;
};

/// The exit status of a child whose program could not be started.
inline constexpr int startFailed = 255;

/// The entry function of a child, as clone(2) calls it: sets the process up as the `ChildSetup` at
/// `given` says and becomes the program. Ends with `startFailed` when that fails. All signals must
/// be blocked.
///
/// May run in a process that shares its memory, the calling thread's errno included, with the
/// agent: makes bare system calls only, touches nothing but the setup and its own stack, and needs
/// neither memory nor a lock.
int runChild(void* given) noexcept;

}  // namespace corvane
