#include "core/start_up.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <exception>
#include <thread>

#include "core/channel.h"
#include "core/heap.h"
#include "core/masked_value.h"
#include "core/message.h"
#include "core/read_loop.h"
#include "core/signals_blocked.h"
#include "core/unhandled_exception.h"
#include "core/version.h"
#include "platform/hypervisor.h"
#include "platform/platform.h"
#include "platform/system_log.h"

namespace corvane {

namespace {

constexpr rlim_t leastOpenFiles = 512;
constexpr int signalBlockFailed = 255;

ThreadEntry reaperEntry = nullptr;

/// A peer may vanish while we write to it, a file grow beyond a limit that we were started with:
/// the write fails then, and that is all that may happen.
void ignoreFailedWrites() {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
    ::sigaction(SIGXFSZ, &action, nullptr);
}

void checkEnvironment() {
    if (platform().hypervisor.presentIndicator() != 1) {
        logStatus(true, "Invalid guest agent environment.\n");
    }
}

void raiseOpenFileLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < leastOpenFiles) {
        limit.rlim_cur = leastOpenFiles;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void doNothing(int /*signal*/, siginfo_t* /*info*/, void* /*context*/) {}

/// SIGCHLD needs a handler to be kept for sigwait(3) at all where it would be ignored by default.
void installChildSignalHandler() {
    struct sigaction action {};
    action.sa_sigaction = doNothing;
    action.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGCHLD, &action, nullptr);
}

void blockChildSignal() {
    sigset_t childSignal;
    ::sigemptyset(&childSignal);
    ::sigaddset(&childSignal, SIGCHLD);
    if (::pthread_sigmask(SIG_BLOCK, &childSignal, nullptr) != 0) {
        std::exit(signalBlockFailed);
    }
}

/// Nothing waits for the power button: an agent without one is an agent still.
void startPowerButtonListener(ThreadEntry listenForPowerButton) {
    const SignalsBlocked signalsBlocked;
    try {
        std::thread(listenForPowerButton).detach();
    } catch (const std::exception&) {
        logPowerButtonUnavailable();
    }
}

/// The thread inherits the mask in which SIGCHLD is blocked, and takes the signal with sigwait(3).
void startReaper(ThreadEntry reapChildren) {
    static pthread_t reaper;  // kept for the life of the process, never joined
    reaperEntry = reapChildren;
    const auto enter = [](void* /*unused*/) -> void* {
        reaperEntry();
        return nullptr;
    };
    static_cast<void>(::pthread_create(&reaper, nullptr, enter, nullptr));
}

void prepare(const BackgroundWork& work) {
    platform().systemLog.createCategories(programIdentifier);
    logStatus(false, "Corvane %s\n", agentVersion);
    makeMaskingKey();
    openChannel();
    checkEnvironment();
    startPowerButtonListener(work.listenForPowerButton);
    raiseOpenFileLimit();
    installChildSignalHandler();
    blockChildSignal();
    startReaper(work.reapChildren);
}

}  // namespace

void runAgent(const BackgroundWork& work) {
    limitHeap();
    ignoreFailedWrites();
    try {
        prepare(work);
        ReadLoop().run();
    } catch (...) {
        endOnUnhandledException();
    }
}

}  // namespace corvane
