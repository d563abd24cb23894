#include "core/start_up.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/message.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/forbidden_call.h"
#include "tests/fakes/own_services.h"
#include "tests/unit/core/signal_mask.h"

namespace corvane {
namespace {

const char* const firstLines =
    "Corvane 1.3-MirelVirtIO-221.100.2~2982\n"
    "Cannot find entry /options on this system\n"
    "Cannot find entry /product on this system\n";

constexpr unsigned hangLimit = 60;  // seconds, and no test comes near it

/// What becomes of an agent that starts in a child. The entry function of its reaper thread runs
/// when everything else has been set up, and can look at the process from inside.
class StartUp : public testing::Test {
 protected:
    struct End {
        int status;
        std::string log;
    };

    End endOf(
        ThreadEntry reaper, const std::function<void()>& beforehand = [] {}) {
        platform_.systemLog.echoToStandardError = true;
        testing::internal::CaptureStderr();
        const int status = exitStatusOf([&] {
            ::alarm(hangLimit);
            sigset_t none;
            ::sigemptyset(&none);
            ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
            ::signal(SIGPIPE, SIG_DFL);
            beforehand();
            runAgent({listener_, reaper});
        });
        return {status, testing::internal::GetCapturedStderr()};
    }

    /// Exit status 0 when `reaper` finds what it looks for; it ends the process itself.
    void expectFound(
        ThreadEntry reaper, const std::function<void()>& beforehand = [] {}) {
        EXPECT_EQ(endOf(reaper, beforehand).status, 0);
    }

    FakePlatform platform_;
    ThreadEntry listener_ = [] {};
};

void exitWith(bool found) {
    ::_exit(found ? 0 : 1);
}

void setOpenFileLimit(rlim_t soft, rlim_t hard) {
    const rlimit limit{soft, hard};
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

bool openFileLimitIs(rlim_t soft, rlim_t hard) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur == soft && limit.rlim_max == hard;
}

TEST_F(StartUp, LogsNameAndVersionFirstThenOpensTheChannel) {
    const End end = endOf([] { exitWith(true); });
    EXPECT_EQ(end.log, firstLines);
    EXPECT_EQ(end.status, 0);
}

TEST_F(StartUp, CreatesTheLogCategoriesUnderTheProgramsIdentifier) {
    static FakeSystemLog* log = nullptr;
    log = &platform_.systemLog;
    expectFound([] { exitWith(log->identifier() == "corvane"); });
}

TEST_F(StartUp, OutsideAVirtualMachineItEndsAfterTheChannelHasBeenOpened) {
    for (const std::optional<std::int32_t> indicator :
         {std::optional<std::int32_t>(0), std::optional<std::int32_t>(2),
          std::optional<std::int32_t>()}) {
        platform_.hypervisor.indicator = indicator;
        const End end = endOf([] { exitWith(true); });
        EXPECT_EQ(end.status, 1);
        EXPECT_EQ(end.log, std::string(firstLines) + "Invalid guest agent environment.\n");
    }
}

TEST_F(StartUp, ChannelThatDoesNotOpenEndsItBeforeTheEnvironmentIsChecked) {
    platform_.hypervisor.indicator = 0;
    platform_.channelDevice.openError = ENOENT;
    const End end = endOf([] { exitWith(true); });
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, firstLines);
}

TEST_F(StartUp, RaisesALowOpenFileLimitToFiveHundredTwelve) {
    expectFound([] { exitWith(openFileLimitIs(512, 2048)); }, [] { setOpenFileLimit(256, 2048); });
}

TEST_F(StartUp, LeavesAHigherOpenFileLimitAlone) {
    expectFound([] { exitWith(openFileLimitIs(1024, 2048)); },
                [] { setOpenFileLimit(1024, 2048); });
}

TEST_F(StartUp, LeavesTheOpenFileLimitWhereTheHardLimitForbidsMore) {
    expectFound([] { exitWith(openFileLimitIs(300, 300)); }, [] { setOpenFileLimit(300, 300); });
}

TEST_F(StartUp, InstallsAHandlerForSigchldWithAnEmptyMaskAndNoNoticeOfStoppedChildren) {
    expectFound([] {
        struct sigaction action {};
        ::sigaction(SIGCHLD, nullptr, &action);
        bool maskIsEmpty = true;
        for (int signal = 1; signal < SIGRTMAX; ++signal) {
            maskIsEmpty = maskIsEmpty && ::sigismember(&action.sa_mask, signal) != 1;
        }
        const auto flags = static_cast<unsigned>(action.sa_flags);
        const bool isHandler = action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
        exitWith(isHandler && maskIsEmpty && (flags & SA_SIGINFO) != 0 &&
                 (flags & SA_NOCLDSTOP) != 0);
    });
}

constexpr char buttonUnavailable[] = "Unable to register for HID power button events.\n";

/// Whether the agent at the other end of a channel answers what its host sends. The host stays to
/// the end of the process: the agent would log that it has gone.
bool answersAHost(FakeChannelDevice& device) {
    const int host = device.takeHostEnd().release();
    constexpr std::string_view request = "[]\n";
    std::array<char, 256> answer{};
    return ::write(host, request.data(), request.size()) > 0 &&
           ::read(host, answer.data(), answer.size()) > 0 && answer.front() == '{';
}

[[noreturn]] void waitForGood() {
    for (;;) {
        ::pause();
    }
}

TEST_F(StartUp, PowerButtonListenerHasAllSignalsBlocked) {
    listener_ = [] { exitWith(blockedSignals() == blockableSignals()); };
    expectFound(waitForGood);
}

TEST_F(StartUp, PowerButtonListenerLeavesOnlySigchldBlockedInTheOthers) {
    expectFound([] { exitWith(blockedSignals() == std::set{SIGCHLD}); });
}

TEST_F(StartUp, PowerButtonListenerIsNotWaitedFor) {
    listener_ = [] { waitForGood(); };
    expectFound([] { exitWith(true); });
}

TEST_F(StartUp, PowerButtonListenerIsStartedOnceAndOnAThreadOfItsOwn) {
    static std::atomic<int> starts = 0;
    static std::atomic<pid_t> listener = 0;
    listener_ = [] {
        listener = ::gettid();
        ++starts;
        starts.notify_one();
    };
    expectFound([] {
        starts.wait(0);
        exitWith(starts == 1 && listener != ::gettid() && listener != ::getpid());
    });
}

TEST_F(StartUp, AgentWhoseListenerGivesUpAnswersItsHost) {
    static FakeChannelDevice* device = nullptr;
    static std::atomic<bool> gaveUp = false;
    device = &platform_.channelDevice;
    listener_ = [] {
        logPowerButtonUnavailable();
        gaveUp = true;
        gaveUp.notify_one();
    };
    const End end = endOf([] {
        gaveUp.wait(false);
        exitWith(answersAHost(*device));
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.log, std::string(firstLines) + buttonUnavailable);
}

pthread_attr_t usualThreads;

/// No thread can be made from now on. See pthread_setattr_default_np(3).
void refuseThreads() {
    ::pthread_getattr_default_np(&usualThreads);
    pthread_attr_t unfit;
    ::pthread_attr_init(&unfit);
    ::pthread_attr_setstacksize(&unfit, std::size_t{1} << 60U);
    ::pthread_setattr_default_np(&unfit);
}

void allowThreads() {
    ::pthread_setattr_default_np(&usualThreads);
}

/// Notices when the power button is given up, which is between two steps of the start where no
/// thread can be made for it.
class WatchfulLog : public FakeSystemLog {
 public:
    void write(LogCategory category, std::string_view text) noexcept override {
        FakeSystemLog::write(category, text);
        if (text == buttonUnavailable) {
            whenUnavailable();
        }
    }

    std::function<void()> whenUnavailable;
};

class StartUpWithoutThreads : public StartUp {
 protected:
    StartUpWithoutThreads() { log_.echoToStandardError = true; }

    WatchfulLog log_;

 private:
    Platform services_ = platformWith({.systemLog = &log_});
    PlatformScope scope_{services_};
};

TEST_F(StartUpWithoutThreads, AgentSaysThatThereIsNoPowerButtonAndRunsOn) {
    static FakeChannelDevice* device = nullptr;
    device = &platform_.channelDevice;
    log_.whenUnavailable = allowThreads;
    listener_ = [] { ::_exit(7); };
    const End end = endOf([] { exitWith(answersAHost(*device)); }, refuseThreads);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.log, std::string(firstLines) + buttonUnavailable);
}

TEST_F(StartUpWithoutThreads, ListenerComesBeforeTheLimitOfOpenFilesAndTheChildSignal) {
    log_.whenUnavailable = [] {
        struct sigaction action {};
        ::sigaction(SIGCHLD, nullptr, &action);
        exitWith(openFileLimitIs(256, 2048) && action.sa_handler == SIG_DFL);
    };
    expectFound([] { ::_exit(7); },
                [] {
                    ::signal(SIGCHLD, SIG_DFL);
                    setOpenFileLimit(256, 2048);
                    refuseThreads();
                });
}

TEST_F(StartUpWithoutThreads, SignalsAreAsTheyWereAfterTheListener) {
    log_.whenUnavailable = allowThreads;
    expectFound([] { exitWith(blockedSignals() == std::set{SIGCHLD}); }, refuseThreads);
}

TEST_F(StartUpWithoutThreads, OutsideAVirtualMachineNoListenerIsStarted) {
    platform_.hypervisor.indicator = 0;
    const End end = endOf([] { ::_exit(7); }, refuseThreads);
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, std::string(firstLines) + "Invalid guest agent environment.\n");
}

/// What is thrown before the read loop runs must not end in an abort either.
class UnlistableSerialDevices : public SerialDevices {
 public:
    std::optional<std::vector<SerialDevice>> list() override { throw std::bad_alloc(); }
};

TEST_F(StartUp, ExceptionEndsItWithStatusOneAndAMessage) {
    UnlistableSerialDevices unlistable;
    Platform services = platformWith({.serialDevices = &unlistable});
    const PlatformScope scope(services);
    const End end = endOf([] { exitWith(true); });
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, std::string(firstLines) +
                           "Unhandled exception: 'Error std::bad_alloc: std::bad_alloc'\n");
}

TEST_F(StartUp, ReaperInheritsTheMaskThatBlocksSigchld) {
    expectFound([] {
        sigset_t mask;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        exitWith(::sigismember(&mask, SIGCHLD) == 1);
    });
}

TEST_F(StartUp, StoppedChildDoesNotWakeTheReaperAndAnEndedOneDoes) {
    expectFound([] {
        const pid_t child = ::fork();
        if (child == 0) {
            ::raise(SIGSTOP);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, WUNTRACED);
        sigset_t pending;
        ::sigpending(&pending);
        const bool quietWhenStopped = WIFSTOPPED(status) && ::sigismember(&pending, SIGCHLD) == 0;
        ::kill(child, SIGCONT);
        sigset_t childSignal;
        ::sigemptyset(&childSignal);
        ::sigaddset(&childSignal, SIGCHLD);
        int signal = 0;
        ::sigwait(&childSignal, &signal);
        exitWith(quietWhenStopped && signal == SIGCHLD);
    });
}

TEST_F(StartUp, IgnoresBrokenPipesAndFilesThatMayNotGrow) {
    expectFound([] {
        struct sigaction pipe {};
        struct sigaction size {};
        ::sigaction(SIGPIPE, nullptr, &pipe);
        ::sigaction(SIGXFSZ, nullptr, &size);
        exitWith(pipe.sa_handler == SIG_IGN && size.sa_handler == SIG_IGN);
    });
}

TEST_F(StartUp, EndsWithStatus255AndNoMessageWhenSigchldCannotBeBlocked) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the leak check at the exit must block signals itself";
#endif
    const End end = endOf([] { exitWith(true); },
                          [] { forbidSystemCall(SYS_rt_sigprocmask, EPERM, SIG_BLOCK); });
    EXPECT_EQ(end.status, 255);
    EXPECT_EQ(end.log, firstLines);
}

}  // namespace
}  // namespace corvane
