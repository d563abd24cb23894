#include "tests/vm/support/host_program.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdio.h>
#include <system_error>

namespace corvane::vm {
namespace {

void openAt(int descriptor, const std::filesystem::path& path) {
    ::dup2(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), descriptor);
}

[[noreturn]] void runProgram(const HostProgram& program, pid_t parent) {
    if (program.endWithParent) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(127);
        }
    } else {
        ::setsid();
    }
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    openAt(STDOUT_FILENO, program.outputPath);
    if (program.errorPath.empty()) {
        ::dup2(STDOUT_FILENO, STDERR_FILENO);
    } else {
        openAt(STDERR_FILENO, program.errorPath);
    }
    for (const int descriptor : program.inherited) {
        ::fcntl(descriptor, F_SETFD, 0);
    }
    std::vector<char*> arguments;
    for (const std::string& word : program.words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    ::perror(arguments[0]);
    ::_exit(127);
}

}  // namespace

pid_t startProgram(const HostProgram& program) {
    const pid_t parent = ::getpid();
    const pid_t process = ::fork();
    if (process < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (process == 0) {
        runProgram(program, parent);
    }
    return process;
}

std::optional<int> awaitProgram(pid_t process, Limit limit) {
    const Descriptor ending(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    if (!ending.isOpen()) {
        if (errno == ESRCH) {
            return 0;
        }
        throw std::system_error(errno, std::generic_category(), "pidfd_open");
    }
    pollfd ended{ending.borrow(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(limit.count())) == 0) {
        return std::nullopt;
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    return status;
}

}  // namespace corvane::vm
