#include "tests/vm/faults/plausible_errors.h"

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <stdexcept>

namespace corvane::vm {
namespace {

struct CallErrors {
    std::string_view call;  ///< its name, or the name and the beginning of what it is made on
    std::string_view errors;
};

// The first entry that fits counts.
constexpr CallErrors table[] = {
    {"access", "EIO ENOMEM"},
    {"bind", "ENOMEM"},
    {"brk", "ENOMEM"},
    {"chdir", "EIO ENOMEM"},
    {"clock_gettime", ""},
    {"clock_settime", "EPERM"},
    {"clone", "EAGAIN ENOMEM"},
    {"clone3", "EAGAIN ENOMEM"},
    {"close", "EINTR EIO ENOSPC"},
    {"close_range", "EMFILE ENOMEM"},
    {"connect", "EAGAIN EINTR"},
    {"dup3", ""},  // EBUSY, EINTR and EMFILE cannot come where a descriptor of its own is replaced
    {"epoll_create1", "EMFILE ENFILE ENOMEM"},
    {"epoll_ctl", "ENOMEM ENOSPC"},
    {"epoll_wait", "EINTR"},
    {"execve", "EAGAIN EIO EMFILE ENFILE ENOMEM"},
    {"exit", ""},
    {"exit_group", ""},
    {"faccessat2", "EIO ENOMEM"},
    {"fcntl", ""},
    {"futex wait", "EAGAIN EINTR"},
    {"futex wake", ""},
    {"getdents64", "EIO ENOMEM"},
    {"geteuid", ""},
    {"getpid", ""},
    {"getrandom", "EINTR"},
    {"getsockname", "ENOBUFS"},
    {"getsockopt", "ENOBUFS"},
    {"inotify_add_watch", "ENOMEM ENOSPC"},
    {"inotify_init1", "EMFILE ENFILE ENOMEM"},
    {"ioctl TIOCGPTPEER", "EINTR EIO EMFILE ENFILE ENOMEM"},
    {"ioctl", "EINTR EIO"},
    {"lseek", ""},
    {"madvise", "EAGAIN EIO ENOMEM"},
    {"mkdir", "ENOMEM ENOSPC"},
    {"mmap", "EAGAIN ENFILE ENOMEM"},
    {"mprotect", "ENOMEM"},
    {"mremap", "EAGAIN ENOMEM"},
    {"munmap", "ENOMEM"},
    {"newfstatat", "EIO ENOMEM"},
    {"openat", "EINTR EIO EMFILE ENFILE ENOMEM"},
    {"openat-new", "EINTR EIO EMFILE ENFILE ENOMEM ENOSPC"},
    {"pipe2", "EMFILE ENFILE ENOMEM"},
    {"poll", "EINTR ENOMEM"},
    {"pread64", "EINTR EIO short"},
    {"prlimit64", ""},
    // Those that the agent has set to be non-blocking.
    {"read /dev/vport", "EAGAIN EINTR EIO short"},
    {"read /dev/ptmx", "EAGAIN EINTR EIO short"},
    {"read socket", "EAGAIN EINTR EIO ENOMEM short"},
    {"read inotify", "EAGAIN EINTR short"},
    {"read", "EINTR EIO short"},
    {"readlink", "EIO ENOMEM"},
    {"recvmsg", "EINTR ENOMEM"},  // of messages, which are not cut
    {"rseq", ""},
    {"rt_sigaction", ""},
    {"rt_sigprocmask", ""},
    {"rt_sigtimedwait", "EINTR"},
    {"sched_setscheduler", "EPERM"},
    {"sendto", "EAGAIN EINTR ENOMEM EPIPE"},
    {"set_robust_list", ""},
    {"setgid", ""},
    {"setsid", ""},
    {"setuid", "EAGAIN"},
    {"socket AF_VSOCK", "EMFILE ENFILE ENODEV ENOMEM"},
    {"socket", "EMFILE ENFILE ENOMEM"},
    {"unlink", "EIO ENOMEM"},
    {"wait4", ""},  // EINTR only without WNOHANG
    {"write /dev/vport", "EAGAIN EINTR EIO short"},
    {"write /dev/ptmx", "EAGAIN EINTR short"},  // EIO comes with the hang-up alone
    {"write socket", "EAGAIN EINTR EIO ENOMEM EPIPE short"},
    {"write pipe", "EINTR EPIPE short"},
    {"write", "EINTR EIO ENOSPC short"},
    {"writev socket", "EINTR EIO ENOMEM EPIPE short"},  // of sockets that block: no EAGAIN
};

struct NamedError {
    std::string_view name;
    int number;
};

constexpr NamedError names[] = {
    {shortCount, 0},      {"EAGAIN", EAGAIN}, {"EINTR", EINTR},   {"EIO", EIO},
    {"EMFILE", EMFILE},   {"ENFILE", ENFILE}, {"ENOMEM", ENOMEM}, {"ENOSPC", ENOSPC},
    {"ENOBUFS", ENOBUFS}, {"ENODEV", ENODEV}, {"EPERM", EPERM},   {"EPIPE", EPIPE},
};

bool fits(std::string_view call, std::string_view entry) {
    return call == entry ||
           (call.starts_with(entry) &&
            (call[entry.size()] == ' ' || entry.find(' ') != std::string_view::npos));
}

}  // namespace

std::optional<std::vector<std::string>> plausibleErrors(std::string_view call) {
    call.remove_prefix(call.find(' ') + 1);  // the role
    const auto* found = std::find_if(std::begin(table), std::end(table),
                                     [call](const auto& entry) { return fits(call, entry.call); });
    if (found == std::end(table)) {
        return std::nullopt;
    }
    std::istringstream words{std::string(found->errors)};
    std::vector<std::string> errors;
    for (std::string word; words >> word;) {
        errors.push_back(word);
    }
    return errors;
}

int errorNumber(std::string_view name) {
    const auto* found = std::find_if(std::begin(names), std::end(names),
                                     [name](const auto& entry) { return entry.name == name; });
    if (found == std::end(names)) {
        throw std::logic_error("no number is known for " + std::string(name));
    }
    return found->number;
}

}  // namespace corvane::vm
