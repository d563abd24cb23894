#include "vm/guest/traced_call.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <string_view>

namespace {

/// Where the call's arguments say what it is made on.
enum class Object {
    none,
    descriptor,        ///< the first argument
    secondDescriptor,  ///< the third, of epoll_ctl
    polled,            ///< the first one of a list
    path,              ///< the first argument
    pathInFolder,      ///< the second; an empty one means the descriptor before it
    domain,            ///< of a socket
    child,             ///< what clone makes
    command,           ///< of fcntl, and its descriptor
    request,           ///< of ioctl, and its descriptor
    operation,         ///< of futex
};

struct KnownCall {
    long number;
    std::string_view name;
    Object object = Object::none;
};

constexpr KnownCall knownCalls[] = {
    {SYS_access, "access", Object::path},
    {SYS_bind, "bind", Object::descriptor},
    {SYS_brk, "brk"},
    {SYS_chdir, "chdir", Object::path},
    {SYS_clock_gettime, "clock_gettime"},
    {SYS_clock_nanosleep, "clock_nanosleep"},
    {SYS_clock_settime, "clock_settime"},
    {SYS_clone, "clone", Object::child},
    {SYS_clone3, "clone3"},
    {SYS_close, "close", Object::descriptor},
    {SYS_close_range, "close_range"},
    {SYS_connect, "connect", Object::descriptor},
    {SYS_dup3, "dup3", Object::descriptor},
    {SYS_epoll_create1, "epoll_create1"},
    {SYS_epoll_ctl, "epoll_ctl", Object::secondDescriptor},
    {SYS_epoll_wait, "epoll_wait", Object::descriptor},
    {SYS_execve, "execve", Object::path},
    {SYS_exit, "exit"},
    {SYS_exit_group, "exit_group"},
    {SYS_faccessat2, "faccessat2", Object::pathInFolder},
    {SYS_fcntl, "fcntl", Object::command},
    {SYS_fstat, "fstat", Object::descriptor},
    {SYS_futex, "futex", Object::operation},
    {SYS_geteuid, "geteuid"},
    {SYS_getdents64, "getdents64", Object::descriptor},
    {SYS_getpid, "getpid"},
    {SYS_getrandom, "getrandom"},
    {SYS_getsockname, "getsockname", Object::descriptor},
    {SYS_getsockopt, "getsockopt", Object::descriptor},
    {SYS_gettid, "gettid"},
    {SYS_gettimeofday, "gettimeofday"},
    {SYS_getuid, "getuid"},
    {SYS_inotify_add_watch, "inotify_add_watch", Object::pathInFolder},
    {SYS_inotify_init1, "inotify_init1"},
    {SYS_inotify_rm_watch, "inotify_rm_watch"},
    {SYS_ioctl, "ioctl", Object::request},
    {SYS_lseek, "lseek", Object::descriptor},
    {SYS_lstat, "lstat", Object::path},
    {SYS_madvise, "madvise"},
    {SYS_mkdir, "mkdir", Object::path},
    {SYS_mmap, "mmap"},
    {SYS_mprotect, "mprotect"},
    {SYS_mremap, "mremap"},
    {SYS_munmap, "munmap"},
    {SYS_newfstatat, "newfstatat", Object::pathInFolder},
    {SYS_open, "open", Object::path},
    {SYS_openat, "openat", Object::pathInFolder},
    {SYS_pipe2, "pipe2"},
    {SYS_poll, "poll", Object::polled},
    {SYS_pread64, "pread64", Object::descriptor},
    {SYS_prlimit64, "prlimit64"},
    {SYS_read, "read", Object::descriptor},
    {SYS_readlink, "readlink", Object::path},
    {SYS_readlinkat, "readlinkat", Object::pathInFolder},
    {SYS_recvmsg, "recvmsg", Object::descriptor},
    {SYS_rseq, "rseq"},
    {SYS_rt_sigaction, "rt_sigaction"},
    {SYS_rt_sigprocmask, "rt_sigprocmask"},
    {SYS_rt_sigtimedwait, "rt_sigtimedwait"},
    {SYS_sched_setscheduler, "sched_setscheduler"},
    {SYS_sendto, "sendto", Object::descriptor},
    {SYS_set_robust_list, "set_robust_list"},
    {SYS_setgid, "setgid"},
    {SYS_setsid, "setsid"},
    {SYS_setsockopt, "setsockopt", Object::descriptor},
    {SYS_setuid, "setuid"},
    {SYS_socket, "socket", Object::domain},
    {SYS_stat, "stat", Object::path},
    {SYS_statx, "statx", Object::pathInFolder},
    {SYS_sysinfo, "sysinfo"},
    {SYS_unlink, "unlink", Object::path},
    {SYS_wait4, "wait4"},
    {SYS_write, "write", Object::descriptor},
    {SYS_writev, "writev", Object::descriptor},
};

struct Word {
    std::uint64_t value;
    std::string_view text;
};

constexpr Word domains[] = {
    {AF_UNIX, "AF_UNIX"}, {AF_NETLINK, "AF_NETLINK"}, {AF_VSOCK, "AF_VSOCK"}};
constexpr Word futexOperations[] = {{FUTEX_WAIT, "wait"},
                                    {FUTEX_WAIT_BITSET, "wait"},
                                    {FUTEX_WAKE, "wake"},
                                    {FUTEX_WAKE_BITSET, "wake"}};
constexpr Word fcntlCommands[] = {
    {F_GETFD, "F_GETFD"}, {F_SETFD, "F_SETFD"}, {F_GETFL, "F_GETFL"}, {F_SETFL, "F_SETFL"}};
constexpr Word ioctlRequests[] = {{TIOCEXCL, "TIOCEXCL"},       {TIOCSCTTY, "TIOCSCTTY"},
                                  {TIOCSWINSZ, "TIOCSWINSZ"},   {TIOCGWINSZ, "TIOCGWINSZ"},
                                  {TIOCGPTPEER, "TIOCGPTPEER"}, {TIOCSPTLCK, "TIOCSPTLCK"},
                                  {TIOCGPTN, "TIOCGPTN"},       {0x5401, "TCGETS"},
                                  {0x802C542A, "TCGETS2"},      {0x402C542B, "TCSETS2"}};

template <std::size_t count>
std::string wordFor(const Word (&words)[count], std::uint64_t value) {
    const auto* found = std::find_if(std::begin(words), std::end(words),
                                     [value](const Word& word) { return word.value == value; });
    return found == std::end(words) ? std::to_string(value) : std::string(found->text);
}

/// Copies memory of the task; 0 bytes when it cannot.
std::size_t readMemory(pid_t task, std::uint64_t address, void* target, std::size_t size) {
    iovec local{target, size};
    iovec remote{reinterpret_cast<void*>(address), size};  // NOLINT: another process's address
    const ssize_t count = ::process_vm_readv(task, &local, 1, &remote, 1, 0);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

std::string readText(pid_t task, std::uint64_t address) {
    constexpr std::size_t longest = 4096;
    constexpr std::size_t page = 4096;
    std::string text;
    while (text.size() < longest) {
        // Up to the end of the page: what follows need not be there.
        std::array<char, page> piece;
        const std::size_t wanted = page - (address + text.size()) % page;
        const std::size_t count = readMemory(task, address + text.size(), piece.data(), wanted);
        const char* const end = std::find<const char*>(piece.data(), piece.data() + count, '\0');
        text.append(piece.data(), static_cast<std::size_t>(end - piece.data()));
        if (count < wanted || end != piece.data() + count) {
            break;
        }
    }
    return text;
}

std::string descriptorName(pid_t task, int descriptor) {
    if (descriptor < 0) {
        return "none";
    }
    const std::string link = "/proc/" + std::to_string(task) + "/fd/" + std::to_string(descriptor);
    std::array<char, 4096> target;
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    if (length < 0) {
        return "closed";
    }
    const std::string name(target.data(), static_cast<std::size_t>(length));
    // What has no path is named by its kind and number: "pipe:[4026]", "anon_inode:[eventpoll]".
    if (name.starts_with("anon_inode:")) {
        return name.substr(std::string_view("anon_inode:").size());
    }
    return name.starts_with('/') ? name : name.substr(0, name.find(':'));
}

std::string polledName(pid_t task, std::uint64_t address, std::uint64_t count) {
    constexpr std::uint64_t shown = 8;
    std::array<pollfd, shown> list{};
    const std::size_t size = std::min(count, shown) * sizeof(pollfd);
    if (readMemory(task, address, list.data(), size) != size) {
        return "unreadable";
    }
    std::string names;
    for (std::uint64_t index = 0; index < std::min(count, shown); ++index) {
        if (list[index].fd >= 0) {
            names += (names.empty() ? "" : ",") + descriptorName(task, list[index].fd);
        }
    }
    return names;
}

std::string pathInFolder(pid_t task, const std::uint64_t* arguments) {
    const std::string path = readText(task, arguments[1]);
    return path.empty() ? descriptorName(task, static_cast<int>(arguments[0])) : path;
}

std::string objectName(pid_t task, Object object, const std::uint64_t* arguments) {
    const auto descriptor = static_cast<int>(arguments[0]);
    switch (object) {
        case Object::none:
            return "";
        case Object::descriptor:
            return descriptorName(task, descriptor);
        case Object::secondDescriptor:
            return descriptorName(task, static_cast<int>(arguments[2]));
        case Object::polled:
            return polledName(task, arguments[0], arguments[1]);
        case Object::path:
            return readText(task, arguments[0]);
        case Object::pathInFolder:
            return pathInFolder(task, arguments);
        case Object::domain:
            return wordFor(domains, arguments[0]);
        case Object::child:
            return (arguments[0] & CLONE_THREAD) != 0 ? "thread" : "process";
        case Object::command:
            return wordFor(fcntlCommands, arguments[1]) + " " + descriptorName(task, descriptor);
        case Object::request:
            return wordFor(ioctlRequests, arguments[1] & 0xFFFFFFFFU) + " " +
                   descriptorName(task, descriptor);
        case Object::operation:
            return wordFor(futexOperations, arguments[1] & static_cast<unsigned>(FUTEX_CMD_MASK));
    }
    return "";
}

std::optional<HalvedCall> halvePieces(pid_t task, std::uint64_t address, std::uint64_t count) {
    constexpr std::size_t most = 64;
    std::array<iovec, most> pieces{};
    const std::size_t size = count * sizeof(iovec);
    if (count > pieces.size() || readMemory(task, address, pieces.data(), size) != size) {
        return std::nullopt;
    }
    std::size_t left = 0;
    for (std::uint64_t index = 0; index < count; ++index) {
        left += pieces[index].iov_len;
    }
    left /= 2;
    for (std::uint64_t index = 0; index < count && left > 0; ++index) {
        const std::size_t whole = pieces[index].iov_len;
        if (left <= whole) {
            return HalvedCall{index + 1, address + index * sizeof(iovec) + offsetof(iovec, iov_len),
                              whole, left};
        }
        left -= whole;
    }
    return std::nullopt;
}

std::string withoutNumbers(const std::string& text) {
    std::string result;
    for (const char byte : text) {
        if (std::isdigit(static_cast<unsigned char>(byte)) == 0) {
            result += byte == '\n' ? '?' : byte;
        } else if (!result.ends_with('#')) {
            result += '#';
        }
    }
    return result;
}

}  // namespace

std::string describeCall(pid_t task, const CallInfo& call) {
    const auto number = static_cast<long>(call.entry.nr);
    std::uint64_t arguments[6];
    std::copy(std::begin(call.entry.args), std::end(call.entry.args), arguments);
    const auto* known =
        std::find_if(std::begin(knownCalls), std::end(knownCalls),
                     [number](const KnownCall& one) { return one.number == number; });
    if (known == std::end(knownCalls)) {
        return "call-" + std::to_string(number);
    }
    std::string line(known->name);
    if (number == SYS_openat && (arguments[2] & O_CREAT) != 0) {
        line += "-new";
    }
    const std::string object = objectName(task, known->object, arguments);
    return object.empty() ? line : line + ' ' + withoutNumbers(object);
}

bool closesDescriptor(std::uint64_t number) {
    return number == SYS_close;
}

bool movesTheBreak(std::uint64_t number) {
    return number == SYS_brk;
}

std::optional<HalvedCall> halve(pid_t task, const CallInfo& call) {
    const std::uint64_t count = call.entry.args[2];
    switch (call.entry.nr) {
        case SYS_read:
        case SYS_write:
        case SYS_pread64:
        case SYS_sendto:
            return count < 2 ? std::nullopt : std::optional(HalvedCall{.count = count / 2});
        case SYS_writev:
            return halvePieces(task, call.entry.args[1], count);
        default:
            return std::nullopt;
    }
}
