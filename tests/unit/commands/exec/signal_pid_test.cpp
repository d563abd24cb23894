#include "commands/exec/signal_pid.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "core/json_writer.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

/// An id that no process has: the largest that Linux gives out is 2^22. See proc(5), pid_max.
constexpr pid_t nobodysPid = 0x7FFFFFFF;

constexpr char success[] = R"({"return":{}})";

std::string error(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
}

std::string answerTo(const std::string& arguments) {
    return writeJson(handleGuestSignalPid(valueOf(arguments).object()));
}

std::string request(int signal, pid_t pid, const std::string& more = "") {
    return R"({"signal":)" + std::to_string(signal) + R"(,"pid":)" + std::to_string(pid) + more +
           "}";
}

sigset_t setOf(int signal) {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, signal);
    return set;
}

/// From here on `signal` waits until it is asked for.
void hold(int signal) {
    const sigset_t set = setOf(signal);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

/// Takes a held signal of this process; false when it has not come.
bool takeHeld(int signal) {
    const sigset_t set = setOf(signal);
    const timespec atOnce{};
    return ::sigtimedwait(&set, nullptr, &atOnce) == signal;
}

std::size_t countDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// The number that the next descriptor gets.
int nextDescriptor() {
    const DescriptorGuard next(::dup(STDERR_FILENO));
    return next.borrow();
}

/// A pseudo-terminal of 24 rows and 80 columns, 640 by 480 pixels.
class Terminal {
 public:
    Terminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        std::array<char, 64> name{};
        const winsize size{24, 80, 640, 480};
        if (::grantpt(master_.borrow()) != 0 || ::unlockpt(master_.borrow()) != 0 ||
            ::ptsname_r(master_.borrow(), name.data(), name.size()) != 0 ||
            ::ioctl(master_.borrow(), TIOCSWINSZ, &size) != 0) {
            throw std::system_error(errno, std::generic_category(), "pseudo-terminal");
        }
        path = name.data();
    }

    /// Rows, columns, pixels.
    [[nodiscard]] std::vector<int> size() const {
        winsize size{};
        ::ioctl(master_.borrow(), TIOCGWINSZ, &size);
        return {size.ws_row, size.ws_col, size.ws_xpixel, size.ws_ypixel};
    }

    std::string path;

 private:
    DescriptorGuard master_;
};

const std::vector<int> firstSize = {24, 80, 640, 480};

/// A child that runs `body`; the constructor returns when the child has called `ready`. It is
/// killed with its scope if it has not ended.
class Child {
 public:
    explicit Child(const std::function<void(const std::function<void()>& ready)>& body) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        const DescriptorGuard reader(ends[0]);
        DescriptorGuard writer(ends[1]);
        pid_ = ::fork();
        if (pid_ == 0) {
            body([&] { [[maybe_unused]] const ssize_t count = ::write(ends[1], ".", 1); });
            ::_exit(0);
        }
        writer.closeNow();
        char byte = 0;
        [[maybe_unused]] const ssize_t count = ::read(reader.borrow(), &byte, 1);
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }

    /// Waits for the end and returns the wait status.
    int awaitEnd() {
        int status = 0;
        ::waitpid(std::exchange(pid_, 0), &status, 0);
        return status;
    }

 private:
    pid_t pid_ = 0;
};

/// Waits for a signal of whatever number that ends it.
void beThere(const std::function<void()>& ready) {
    ready();
    for (;;) {
        ::pause();
    }
}

/// The signal that ended a process, 0 if none did.
int endingSignal(int status) {
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

/// This process is the one to be signalled: a held SIGWINCH tells whether it was.
class SignalPid : public testing::Test {
 protected:
    SignalPid() {
        hold(SIGWINCH);
        takeHeld(SIGWINCH);
    }

    /// What this process has for input, as the agent sees it.
    void setInput(const std::string& path, const std::string& realPath) {
        platform_.processInformation.inputs[::getpid()] = {path, realPath};
    }

    FakePlatform platform_;
};

TEST_F(SignalPid, ArgumentsAreCheckedInOrderAndNoFailureIsWrittenToStandardError) {
    const std::vector<std::pair<std::string, std::string>> refusals = {
        {"null", "missing arguments"},
        {"{}", "signal is not a number"},
        {R"({"pid":1})", "signal is not a number"},
        {R"({"signal":"9","pid":"1"})", "signal is not a number"},
        {R"({"signal":null,"pid":1})", "signal is not a number"},
        {R"({"signal":[9],"pid":1})", "signal is not a number"},
        {R"({"signal":0})", "pid is not a number"},
        {R"({"signal":0,"pid":"1"})", "pid is not a number"},
        {R"({"signal":0,"pid":null})", "pid is not a number"},
        {R"({"signal":28,"mirel-window-size":5})", "pid is not a number"},
        {request(28, nobodysPid, R"(,"mirel-window-size":5)"),
         "failed to get path for file descriptor 0"},
        {request(0, nobodysPid),
         "failed to send signal to process 2147483647 with errno: No such "
         "process"},
    };
    for (const auto& [arguments, description] : refusals) {
        const JsonValue value = arguments == "null" ? JsonValue() : valueOf(arguments);
        testing::internal::CaptureStderr();
        EXPECT_EQ(writeJson(handleGuestSignalPid(value.object())), error(description));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << arguments;
    }
}

TEST_F(SignalPid, ProcessReceivesTheSignal) {
    for (const int signal : {SIGTERM, SIGKILL, SIGUSR1, SIGRTMIN}) {
        Child child(beThere);
        EXPECT_EQ(answerTo(request(signal, child.pid())), success);
        EXPECT_EQ(endingSignal(child.awaitEnd()), signal);
    }
}

TEST_F(SignalPid, NumbersAreCutTo32Bits) {
    Child child(beThere);
    const std::string wrapped = std::to_string(4294967296 + child.pid());
    EXPECT_EQ(answerTo(R"({"signal":4294967305.7,"pid":)" + wrapped + "}"), success);
    EXPECT_EQ(endingSignal(child.awaitEnd()), SIGKILL);
}

TEST_F(SignalPid, BooleanIsANumber) {
    Child child(beThere);
    EXPECT_EQ(answerTo(R"({"signal":false,"pid":)" + std::to_string(child.pid()) + "}"), success);
    EXPECT_EQ(answerTo(R"({"signal":true,"pid":)" + std::to_string(child.pid()) + "}"), success);
    EXPECT_EQ(endingSignal(child.awaitEnd()), SIGHUP);
    if (::geteuid() == 0) {
        EXPECT_EQ(answerTo(R"({"signal":0,"pid":true})"), success) << "process 1";
    }
}

TEST_F(SignalPid, SignalZeroOnlyAsksWhetherTheProcessIsThere) {
    Child child(beThere);
    EXPECT_EQ(answerTo(request(0, child.pid())), success);
    ::kill(child.pid(), SIGKILL);
    const pid_t pid = child.pid();
    child.awaitEnd();
    EXPECT_EQ(answerTo(request(0, pid)),
              error("failed to send signal to process " + std::to_string(pid) +
                    " with errno: No such process"));
}

TEST_F(SignalPid, SignalThatThereIsNotIsRefusedBySystem) {
    for (const int signal : {-1, 65, 4096}) {
        const std::string self = std::to_string(::getpid());
        EXPECT_EQ(
            answerTo(request(signal, ::getpid())),
            error("failed to send signal to process " + self + " with errno: Invalid argument"));
    }
}

TEST_F(SignalPid, ProcessOfAnotherUserIsRefusedBySystem) {
    testing::internal::CaptureStdout();
    const int status = exitStatusOf([] {
        constexpr uid_t nobody = 65534;
        if (::geteuid() == 0 && ::setuid(nobody) != 0) {
            ::_exit(2);
        }
        ::_exit(answerTo(request(0, 1)) == error("failed to send signal to process 1 with errno: "
                                                 "Operation not permitted")
                    ? 0
                    : 1);
    });
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, 0);
}

TEST_F(SignalPid, NegativePidIsAProcessGroup) {
    Child leader([](const std::function<void()>& ready) {
        ::setpgid(0, 0);
        beThere(ready);
    });
    const pid_t group = leader.pid();
    Child member([group](const std::function<void()>& ready) {
        ::setpgid(0, group);
        beThere(ready);
    });
    EXPECT_EQ(answerTo(request(SIGTERM, -group)), success);
    EXPECT_EQ(endingSignal(leader.awaitEnd()), SIGTERM);
    EXPECT_EQ(endingSignal(member.awaitEnd()), SIGTERM);
    EXPECT_EQ(answerTo(request(SIGTERM, -group)),
              error("failed to send signal to process -" + std::to_string(group) +
                    " with errno: No such process"));
}

TEST_F(SignalPid, PidZeroIsTheAgentsOwnProcessGroup) {
    EXPECT_EQ(exitStatusOf([] {
                  if (::setpgid(0, 0) != 0) {
                      ::_exit(2);
                  }
                  hold(SIGUSR1);
                  const bool sent = answerTo(request(SIGUSR1, 0)) == success;
                  ::_exit(sent && takeHeld(SIGUSR1) ? 0 : 1);
              }),
              0);
}

TEST_F(SignalPid, OtherSignalsLookAtNoTerminalAndNoSize) {
    EXPECT_EQ(answerTo(request(0, ::getpid(), R"(,"mirel-window-size":5)")), success);
    const Terminal terminal;
    setInput(terminal.path, terminal.path);
    EXPECT_EQ(answerTo(request(0, ::getpid(), R"(,"mirel-window-size":{"rows":1})")), success);
    EXPECT_EQ(terminal.size(), firstSize);
}

TEST_F(SignalPid, WindowChangeOfAProcessWithoutAnInputPathIsRefused) {
    for (const char* more :
         {"", R"(,"mirel-window-size":{"rows":1})", R"(,"mirel-window-size":5)"}) {
        EXPECT_EQ(answerTo(request(SIGWINCH, ::getpid(), more)),
                  error("failed to get path for file descriptor 0"));
    }
    EXPECT_FALSE(takeHeld(SIGWINCH));
}

TEST_F(SignalPid, InputThatCannotBeOpenedIsToldByTheNameThatTheProcessHasForIt) {
    setInput("/dev/pts/its own", "/nowhere/at/all");
    for (const char* more : {"", R"(,"mirel-window-size":5)"}) {
        EXPECT_EQ(answerTo(request(SIGWINCH, ::getpid(), more)),
                  error("failed to open path '/dev/pts/its own' with errno: No such file or "
                        "directory"));
    }
    EXPECT_FALSE(takeHeld(SIGWINCH));
}

TEST_F(SignalPid, InputThatIsNoTerminalIsToldByTheAgentsOwnDescriptor) {
    setInput("/dev/null", "/dev/null");
    const std::size_t before = countDescriptors();
    for (const char* more : {"", R"(,"mirel-window-size":5)"}) {
        const std::string number = std::to_string(nextDescriptor());
        EXPECT_EQ(answerTo(request(SIGWINCH, ::getpid(), more)),
                  error("failed to get window size for file descriptor " + number +
                        " with errno: Inappropriate ioctl for device"));
    }
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_FALSE(takeHeld(SIGWINCH));
}

TEST_F(SignalPid, DescriptorZeroIsNotClosed) {
    setInput("/dev/null", "/dev/null");
    EXPECT_EQ(exitStatusOf([] {
                  const pid_t subject = ::getppid();
                  ::close(0);
                  const bool told = answerTo(request(SIGWINCH, subject)) ==
                                    error(
                                        "failed to get window size for file descriptor 0 with "
                                        "errno: Inappropriate ioctl for device");
                  ::_exit(told && ::fcntl(0, F_GETFD) >= 0 ? 0 : 1);
              }),
              0);
}

TEST_F(SignalPid, WindowChangeWithoutASizeIsSentAndChangesNoSize) {
    const Terminal terminal;
    setInput(terminal.path, terminal.path);
    const std::size_t before = countDescriptors();
    EXPECT_EQ(answerTo(request(SIGWINCH, ::getpid())), success);
    EXPECT_TRUE(takeHeld(SIGWINCH));
    EXPECT_EQ(answerTo(R"({"signal":28.9,"pid":)" + std::to_string(::getpid()) + "}"), success);
    EXPECT_TRUE(takeHeld(SIGWINCH));
    EXPECT_EQ(terminal.size(), firstSize);
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(SignalPid, WindowChangeWithoutASizeMayFailToBeSent) {
    const Terminal terminal;
    platform_.processInformation.inputs[nobodysPid] = {terminal.path, terminal.path};
    EXPECT_EQ(answerTo(request(SIGWINCH, nobodysPid)),
              error("failed to send signal to process 2147483647 with errno: No such process"));
}

TEST_F(SignalPid, SizeIsSetInsteadOfASignalAndWhatIsLeftOutStays) {
    const Terminal terminal;
    setInput(terminal.path, terminal.path);
    const std::size_t before = countDescriptors();
    const auto resize = [](const std::string& size) {
        return answerTo(request(SIGWINCH, ::getpid(), R"(,"mirel-window-size":)" + size));
    };
    EXPECT_EQ(resize(R"({"rows":50})"), success);
    EXPECT_EQ(terminal.size(), (std::vector<int>{50, 80, 640, 480}));
    EXPECT_EQ(resize(R"({"columns":132,"y":1080})"), success);
    EXPECT_EQ(terminal.size(), (std::vector<int>{50, 132, 640, 1080}));
    EXPECT_EQ(resize(R"({"x":70000,"rows":-1,"columns":true,"y":0})"), success);
    EXPECT_EQ(terminal.size(), (std::vector<int>{65535, 1, 4464, 0}));
    EXPECT_EQ(resize("{}"), success);
    EXPECT_EQ(terminal.size(), (std::vector<int>{65535, 1, 4464, 0}));
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_FALSE(takeHeld(SIGWINCH)) << "it is not our controlling terminal";
}

TEST_F(SignalPid, SizeThatIsNoneIsRefusedWithoutAChangeOrASignal) {
    const Terminal terminal;
    setInput(terminal.path, terminal.path);
    const std::size_t before = countDescriptors();
    const std::vector<std::pair<std::string, std::string>> refusals = {
        {"null", "mirel-window-size is not a dictionary"},
        {"5", "mirel-window-size is not a dictionary"},
        {R"({"rows":50,"columns":"80"})", "columns is not a number"},
    };
    for (const auto& [size, description] : refusals) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(answerTo(request(SIGWINCH, ::getpid(), R"(,"mirel-window-size":)" + size)),
                  error(description));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "getWindowSize: " + description + "\n");
    }
    EXPECT_EQ(terminal.size(), firstSize);
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_FALSE(takeHeld(SIGWINCH));
}

/// The terminal's own notice reaches the program in its foreground.
TEST_F(SignalPid, ForegroundProgramLearnsOfItsNewSize) {
    const Terminal terminal;
    Child child([&](const std::function<void()>& ready) {
        ::setsid();
        const int input = ::open(terminal.path.c_str(), O_RDWR);  // becomes its terminal
        ready();
        const sigset_t set = setOf(SIGWINCH);
        int signal = 0;
        ::sigwait(&set, &signal);
        winsize size{};
        ::ioctl(input, TIOCGWINSZ, &size);
        ::_exit(size.ws_row);
    });
    platform_.processInformation.inputs[child.pid()] = {terminal.path, terminal.path};
    EXPECT_EQ(answerTo(request(SIGWINCH, child.pid(), R"(,"mirel-window-size":{"rows":99})")),
              success);
    const int status = child.awaitEnd();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 99);
}

/// From here on the system refuses to set a terminal's size. See seccomp(2).
bool refuseToSetSizes() {
    constexpr auto request =
        static_cast<unsigned>(offsetof(seccomp_data, args) + sizeof(seccomp_data::args[0]));
    std::array<sock_filter, 6> filter = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, request),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, TIOCSWINSZ, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(SignalPid, SizeThatTheSystemRefusesIsToldByTheAgentsOwnDescriptor) {
    const Terminal terminal;
    setInput(terminal.path, terminal.path);
    EXPECT_EQ(exitStatusOf([] {
                  if (!refuseToSetSizes()) {
                      ::_exit(2);
                  }
                  const std::string number = std::to_string(nextDescriptor());
                  const std::size_t before = countDescriptors();
                  const bool told = answerTo(request(SIGWINCH, ::getppid(),
                                                     R"(,"mirel-window-size":{"rows":9})")) ==
                                    error("failed to set window size for file descriptor " +
                                          number + " with errno: Operation not permitted");
                  ::_exit(told && countDescriptors() == before ? 0 : 1);
              }),
              0);
    EXPECT_EQ(terminal.size(), firstSize);
    EXPECT_FALSE(takeHeld(SIGWINCH));
}

}  // namespace
}  // namespace corvane
