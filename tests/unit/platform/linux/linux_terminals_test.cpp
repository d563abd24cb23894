#include "platform/linux/linux_terminals.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/unit/platform/linux/terminal_rows.h"

namespace corvane {
namespace {

constexpr winsize someSize{24, 80, 640, 480};

/// What holds for every service of terminals.
template <typename Service>
class TerminalsContract : public testing::Test {
 protected:
    PseudoTerminalPair openPair() {
        auto pair = service_.openPair({}, someSize);
        EXPECT_TRUE(pair.ok()) << pair.error();
        return pair.ok() ? pair.take() : PseudoTerminalPair{};
    }

    Service service_;
};

using Services = testing::Types<LinuxTerminals, FakeTerminals>;
TYPED_TEST_SUITE(TerminalsContract, Services);

TYPED_TEST(TerminalsContract, BothEndsAreCloseOnExec) {
    const PseudoTerminalPair pair = this->openPair();
    EXPECT_EQ(::fcntl(pair.master.borrow(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(pair.slave.borrow(), F_GETFD), FD_CLOEXEC);
}

TYPED_TEST(TerminalsContract, BothEndsReadAndWriteAndBlock) {
    const PseudoTerminalPair pair = this->openPair();
    for (const int end : {pair.master.borrow(), pair.slave.borrow()}) {
        EXPECT_EQ(::fcntl(end, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    }
}

TYPED_TEST(TerminalsContract, TheSizeIsSeenAtBothEnds) {
    const PseudoTerminalPair pair = this->openPair();
    for (const int end : {pair.master.borrow(), pair.slave.borrow()}) {
        winsize size{};
        ASSERT_EQ(::ioctl(end, TIOCGWINSZ, &size), 0);
        EXPECT_EQ(size.ws_row, someSize.ws_row);
        EXPECT_EQ(size.ws_col, someSize.ws_col);
        EXPECT_EQ(size.ws_xpixel, someSize.ws_xpixel);
        EXPECT_EQ(size.ws_ypixel, someSize.ws_ypixel);
    }
}

TYPED_TEST(TerminalsContract, TheEndsAreOneTerminal) {
    const PseudoTerminalPair pair = this->openPair();
    ASSERT_EQ(::write(pair.slave.borrow(), "text", 4), 4);
    std::array<char, 16> received{};
    ASSERT_EQ(::read(pair.master.borrow(), received.data(), received.size()), 4);
    EXPECT_STREQ(received.data(), "text");
}

TYPED_TEST(TerminalsContract, NeitherEndBecomesOurControllingTerminal) {
    EXPECT_EQ(exitStatusOf([this] {
                  if (::setsid() < 0) {
                      ::_exit(1);
                  }
                  auto pair = this->service_.openPair({}, someSize);
                  if (!pair.ok()) {
                      ::_exit(2);
                  }
                  if (::open("/dev/tty", O_RDWR | O_CLOEXEC) >= 0 || errno != ENXIO) {
                      ::_exit(3);
                  }
                  // It could have: this session has none yet.
                  if (::ioctl(pair.value().slave.borrow(), TIOCSCTTY, 0) != 0 ||
                      ::open("/dev/tty", O_RDWR | O_CLOEXEC) < 0) {
                      ::_exit(4);
                  }
                  // At once: a session whose terminal is closed is hung up.
                  ::_exit(0);
              }),
              0);
}

/// The settings of a terminal as ordinary programs see them.
termios shownBy(int terminal) {
    termios shown{};
    EXPECT_EQ(::tcgetattr(terminal, &shown), 0);
    return shown;
}

termios shownAfterOpening(const TerminalSettings& settings) {
    auto pair = LinuxTerminals().openPair(settings, someSize);
    EXPECT_TRUE(pair.ok()) << pair.error();
    return pair.ok() ? shownBy(pair.value().slave.borrow()) : termios{};
}

/// A terminal as the kernel makes it.
PseudoTerminalPair untouchedPair() {
    auto pair = FakeTerminals().openPair({}, someSize);
    EXPECT_TRUE(pair.ok());
    return pair.take();
}

using TheirWord = std::uint64_t TerminalSettings::*;
using OurWord = tcflag_t termios::*;

struct Word {
    TheirWord theirs;
    OurWord ours;
    const std::vector<FlagRow>& rows;
    tcflag_t forcedOff = 0;  ///< a pseudo-terminal has no such thing
    tcflag_t forcedOn = 0;
};

const Word words[] = {
    {&TerminalSettings::c_iflag, &termios::c_iflag, inputRows},
    {&TerminalSettings::c_oflag, &termios::c_oflag, outputRows},
    {&TerminalSettings::c_lflag, &termios::c_lflag, localRows},
    // Characters of eight bits without parity that are always received, see drivers/tty/pty.c.
    {&TerminalSettings::c_cflag, &termios::c_cflag, controlRows, PARENB, CS8 | CREAD | B38400},
};

TEST(LinuxTerminals, EveryFlagAloneIsOnAtANewTerminalAndAllOthersAreOff) {
    for (const Word& word : words) {
        for (const FlagRow& row : word.rows) {
            TerminalSettings settings;
            settings.*word.theirs = row.theirs;
            EXPECT_EQ(shownAfterOpening(settings).*word.ours,
                      (row.ours & ~word.forcedOff) | word.forcedOn)
                << row.name;
        }
    }
}

TEST(LinuxTerminals, EveryFlagMissingIsOffAndAllOthersAreOn) {
    for (const Word& word : words) {
        for (const FlagRow& missing : word.rows) {
            TerminalSettings settings;
            tcflag_t expected = 0;
            for (const FlagRow& row : word.rows) {
                if (row.theirs != missing.theirs) {
                    settings.*word.theirs |= row.theirs;
                    expected |= row.ours;
                }
            }
            const tcflag_t both = 0x30000;
            if ((settings.*word.theirs & both) == both &&
                word.theirs == &TerminalSettings::c_cflag) {
                expected |= CRTSCTS;
            }
            EXPECT_EQ(shownAfterOpening(settings).*word.ours,
                      (expected & ~word.forcedOff) | word.forcedOn)
                << missing.name;
        }
    }
}

TEST(LinuxTerminals, AnOldTerminalIsGivenOtherSettingsAtOnce) {
    const PseudoTerminalPair pair = untouchedPair();
    const int slave = pair.slave.borrow();
    ASSERT_NE(shownBy(slave).c_lflag & (ICANON | ECHO | ISIG), 0U);
    // Output that nobody takes must not hold it up.
    ASSERT_EQ(::write(slave, "text", 4), 4);
    TerminalSettings raw;
    raw.c_iflag = 0x4000;  // IUTF8
    EXPECT_EQ(LinuxTerminals().applySettings(slave, raw), 0);
    EXPECT_EQ(shownBy(slave).c_lflag, 0U);
    EXPECT_EQ(shownBy(slave).c_iflag, static_cast<tcflag_t>(IUTF8));
    TerminalSettings echoing;
    echoing.c_lflag = 0x8;
    EXPECT_EQ(LinuxTerminals().applySettings(slave, echoing), 0);
    EXPECT_EQ(shownBy(slave).c_lflag, static_cast<tcflag_t>(ECHO));
    EXPECT_EQ(shownBy(slave).c_iflag, 0U);
}

TEST(LinuxTerminals, AllControlCharactersGoWhereTheyBelong) {
    const PseudoTerminalPair untouched = untouchedPair();
    const termios before = shownBy(untouched.slave.borrow());
    for (const std::uint64_t canonical : {0x000U, 0x100U}) {
        TerminalSettings settings;
        settings.c_lflag = canonical;
        settings.c_cc.emplace();
        std::array<cc_t, NCCS> expected{};
        std::copy(std::begin(before.c_cc), std::end(before.c_cc), expected.begin());
        for (std::size_t index = 0; index < controlCharacterCount; ++index) {
            const auto value = static_cast<std::uint8_t>(0x80 + index);
            (*settings.c_cc)[index] = value;
            if (const int place = controlCharacterPlaces[index]; place >= 0) {
                expected[static_cast<std::size_t>(place)] = value;
            }
        }
        const termios shown = shownAfterOpening(settings);
        for (std::size_t index = 0; index < NCCS; ++index) {
            EXPECT_EQ(shown.c_cc[index], expected[index]) << index;
        }
    }
}

TEST(LinuxTerminals, ADisabledCharacterIsAnOrdinaryOneThen) {
    TerminalSettings settings;
    settings.c_lflag = 0x80;  // ISIG
    settings.c_cc.emplace().fill(0xFF);
    const termios shown = shownAfterOpening(settings);
    EXPECT_EQ(shown.c_cc[VINTR], _POSIX_VDISABLE);
    EXPECT_EQ(shown.c_cc[VEOF], _POSIX_VDISABLE);
    EXPECT_EQ(shown.c_cc[VMIN], 0xFF);
    EXPECT_EQ(shown.c_cc[VTIME], 0xFF);
}

TEST(LinuxTerminals, WithoutControlCharactersANewTerminalHasTheKernels) {
    const PseudoTerminalPair untouched = untouchedPair();
    const termios before = shownBy(untouched.slave.borrow());
    const termios shown = shownAfterOpening({});
    for (std::size_t index = 0; index < NCCS; ++index) {
        EXPECT_EQ(shown.c_cc[index], before.c_cc[index]) << index;
    }
    EXPECT_EQ(shown.c_cc[VINTR], 'C' - '@');
}

TEST(LinuxTerminals, WithoutControlCharactersAnOldTerminalKeepsItsOwn) {
    const PseudoTerminalPair pair = untouchedPair();
    termios shown = shownBy(pair.slave.borrow());
    shown.c_cc[VINTR] = 'q';
    ASSERT_EQ(::tcsetattr(pair.slave.borrow(), TCSANOW, &shown), 0);
    EXPECT_EQ(LinuxTerminals().applySettings(pair.slave.borrow(), {}), 0);
    EXPECT_EQ(shownBy(pair.slave.borrow()).c_cc[VINTR], 'q');
}

TEST(LinuxTerminals, OrdinaryProgramsSeeAStandardSpeed) {
    TerminalSettings settings;
    settings.c_ispeed = settings.c_ospeed = 9600;
    const termios shown = shownAfterOpening(settings);
    EXPECT_EQ(::cfgetospeed(&shown), static_cast<speed_t>(B9600));
    EXPECT_EQ(::cfgetispeed(&shown), static_cast<speed_t>(B9600));
}

TEST(LinuxTerminals, WhatIsNoTerminalIsRefused) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const DescriptorGuard readEnd(ends[0]);
    const DescriptorGuard writeEnd(ends[1]);
    EXPECT_EQ(LinuxTerminals().applySettings(readEnd.borrow(), {}), ENOTTY);
    EXPECT_EQ(LinuxTerminals().applySettings(-1, {}), EBADF);
}

int lowestFreeDescriptor() {
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(lowest);
    return lowest;
}

TEST(LinuxTerminals, WithoutDescriptorsThereIsAnErrorAndNothingIsLeftOpen) {
    EXPECT_EQ(exitStatusOf([] {
                  LinuxTerminals terminals;
                  // A sanitizer looks at the object when it is first used, with descriptors.
                  static_cast<void>(terminals.openPair({}, someSize));
                  for (const rlim_t free : {0U, 1U}) {
                      const int lowest = lowestFreeDescriptor();
                      const rlimit before{static_cast<rlim_t>(lowest) + 10,
                                          static_cast<rlim_t>(lowest) + 10};
                      const rlimit limit{static_cast<rlim_t>(lowest) + free, before.rlim_max};
                      ::setrlimit(RLIMIT_NOFILE, &limit);
                      const auto pair = terminals.openPair({}, someSize);
                      ::setrlimit(RLIMIT_NOFILE, &before);
                      if (pair.error() != EMFILE) {
                          ::_exit(1);
                      }
                      if (lowestFreeDescriptor() != lowest) {
                          ::_exit(2);
                      }
                  }
              }),
              120);
}

}  // namespace
}  // namespace corvane
