// Runs a program on a pseudo-terminal of its own, apart from the agent.
//
//   on-pty ROWS COLUMNS OUTPUT PROGRAM [WORD...]
//
// Prints the program's process id as soon as it is started. A child of on-pty goes on in the
// background, appends what the terminal shows to OUTPUT (a named pipe serves) and ends with the
// terminal's last user.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <pty.h>

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

void copyOutput(int terminal, const char* path) {
    const int output = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = ::read(terminal, buffer.data(), buffer.size());
        if (count <= 0 ||
            ::write(output, buffer.data(), static_cast<std::size_t>(count)) != count) {
            return;
        }
    }
}

}  // namespace

int main(int count, char** words) {
    if (count < 5) {
        std::fputs("usage: on-pty ROWS COLUMNS OUTPUT PROGRAM [WORD...]\n", stderr);
        return 2;
    }
    winsize size{};
    size.ws_row = static_cast<unsigned short>(std::strtoul(words[1], nullptr, 10));
    size.ws_col = static_cast<unsigned short>(std::strtoul(words[2], nullptr, 10));
    int terminal = -1;
    const pid_t program = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (program < 0) {
        fail("forkpty");
    }
    if (program == 0) {
        ::execvp(words[4], words + 4);
        fail(words[4]);
    }
    ::printf("%d\n", program);
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child < 0) {
        fail("fork");
    }
    if (child == 0) {
        copyOutput(terminal, words[3]);
    }
    return 0;
}
