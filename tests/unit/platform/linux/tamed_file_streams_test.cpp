// What separates the streams from those of fopen(3), and what is left when there is none.

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "platform/linux/linux_file_streams.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/platform/linux/pseudo_terminal.h"
#include "tests/unit/platform/linux/stream_openers.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

class TamedFileStreams : public testing::Test {
 protected:
    TamedFileStreams() { tree_.makeFile("file", "0123456789"); }

    TemporaryTree tree_;
    std::string path_ = tree_.path("file");
};

bool hasControllingTerminal() {
    const DescriptorGuard terminal(::open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC));
    return !terminal.empty();
}

TEST_F(TamedFileStreams, TerminalDoesNotBecomeTheControllingOneOfASessionLeader) {
    for (const std::string mode :
         {"r", "w", "a", "r+", "w+", "a+", "rm", "rbbbbbb", "rbbbbb+", "r,+"}) {
        const PseudoTerminal terminal;
        const int status = exitStatusOf([&] {
            ::setsid();
            const OwnedStream stream = openStream(terminal.path(), mode);
            const bool tamed = stream != nullptr && ::isatty(::fileno(stream.get())) == 1 &&
                               !hasControllingTerminal();
            const OwnedStream plain = openPlainly(terminal.path(), "r");
            ::_exit(!tamed ? 1 : !hasControllingTerminal() ? 2 : 0);
        });
        EXPECT_EQ(status, 0) << mode << ": 1 for a terminal taken, 2 when plain fopen takes none";
    }
}

/// The status of a child that reads a byte of a file with `open`, and the rest after somebody has
/// emptied the file; -1 where there is no such stream.
int readingAShortenedFile(OwnedStream (*open)(const std::string&, const std::string&),
                          const std::string& path, const std::string& mode) {
    {
        const OwnedStream file = openPlainly(path, "w");
        std::fputs(std::string(1U << 20U, 'x').c_str(), file.get());
    }
    return exitStatusOf([&] {
        constexpr rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        ::signal(SIGBUS, SIG_DFL);
        const OwnedStream stream = open(path, mode);
        const bool wide = stream != nullptr && std::fwide(stream.get(), 0) > 0;
        const auto readOn = [&] {
            return wide ? std::fgetwc(stream.get()) != WEOF : std::fgetc(stream.get()) != EOF;
        };
        if (stream == nullptr || !readOn() || ::truncate(path.c_str(), 0) != 0) {
            ::_exit(2);
        }
        while (readOn()) {
        }
        ::_exit(0);
    });
}

TEST_F(TamedFileStreams, FileThatIsShortenedWhileItIsReadHarmsNobody) {
    constexpr int endedBySignal = 121;
    for (const std::string mode : {"rm", "rbm", "rcem", "r,m", "r,ccs=mac", "rbbbbbm"}) {
        EXPECT_EQ(readingAShortenedFile(openPlainly, path_, mode), endedBySignal) << mode;
        EXPECT_EQ(readingAShortenedFile(openStream, path_, mode), 0) << mode;
    }
}

/// How many descriptors can be made until the limit. Ends with all of them closed again.
int freeDescriptors() {
    std::vector<DescriptorGuard> made;
    made.reserve(64);
    while (true) {
        DescriptorGuard next(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        if (next.empty()) {
            return static_cast<int>(made.size());
        }
        made.push_back(std::move(next));
    }
}

TEST_F(TamedFileStreams, WithoutDescriptorsThereIsNoStreamAndNoneIsLost) {
    for (const std::string& where : {path_, std::string("/dev/null")}) {
        for (const int available : {0, 1, 2}) {
            EXPECT_EQ(
                exitStatusOf([&] {
                    openStream(where, "r");  // what a sanitizer asks of the kernel, it asks now
                    const int next = ::dup(STDERR_FILENO);
                    ::close(next);
                    const rlimit limit{static_cast<rlim_t>(next + available), 64};
                    ::setrlimit(RLIMIT_NOFILE, &limit);
                    const int before = freeDescriptors();
                    const bool opened = openStream(where, "r+") != nullptr;
                    const bool suffices = available > 0;
                    ::_exit(before == available && opened == suffices && freeDescriptors() == before
                                ? 0
                                : 1);
                }),
                0)
                << where << " with " << available;
        }
    }
}

/// Takes all memory that can be had, but for less than a stream needs.
void exhaustMemory() {
    constexpr rlimit noMore{0, 0};
    ::setrlimit(RLIMIT_AS, &noMore);
    // The allocator keeps pieces of many sizes.
    for (std::size_t size = std::size_t{1} << 16U; size > 256; size -= 16) {
        void* volatile taken = nullptr;  // or a compiler takes nothing
        do {
            taken = std::malloc(size);
        } while (taken != nullptr);
    }
}

TEST_F(TamedFileStreams, WithoutMemoryThereIsNoStreamAndNoDescriptorIsLost) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator ends the process instead";
#endif
    for (const std::string& where : {path_, std::string("/dev/null")}) {
        EXPECT_EQ(exitStatusOf([&] {
                      const int next = ::dup(STDERR_FILENO);
                      ::close(next);
                      exhaustMemory();
                      const bool opened = openStream(where, "r") != nullptr;
                      ::_exit(!opened && ::dup(STDERR_FILENO) == next ? 0 : 1);
                  }),
                  0)
            << where;
    }
}

}  // namespace
}  // namespace corvane
