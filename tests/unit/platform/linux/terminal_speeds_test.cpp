#include <gtest/gtest.h>

#include "platform/linux/linux_terminals.h"
#include "platform/linux/terminal_translation.h"

namespace corvane {
namespace {

struct Speeds {
    std::uint64_t input;
    std::uint64_t output;
    bool operator==(const Speeds&) const = default;
};

/// What the kernel says of a new terminal that was given these speeds.
Speeds speedsOf(const Speeds& given, tcflag_t* flags = nullptr) {
    TerminalSettings settings;
    settings.c_ispeed = given.input;
    settings.c_ospeed = given.output;
    auto pair = LinuxTerminals().openPair(settings, winsize{});
    KernelTerminalSettings terminal{};
    if (!pair.ok() || ::ioctl(pair.value().slave.borrow(), readTerminalSettings, &terminal) != 0) {
        ADD_FAILURE() << "no terminal";
    }
    if (flags) {
        *flags = terminal.c_cflag;
    }
    return {terminal.c_ispeed, terminal.c_ospeed};
}

std::ostream& operator<<(std::ostream& stream, const Speeds& speeds) {
    return stream << speeds.input << " in, " << speeds.output << " out";
}

TEST(TerminalSpeeds, OfAnyNumberReachTheKernel) {
    for (const std::uint64_t speed : {50U, 134U, 9600U, 12345U, 115200U, 250000U, 4000000U}) {
        const Speeds both{speed, speed};
        EXPECT_EQ(speedsOf(both), both);
    }
}

TEST(TerminalSpeeds, MayDifferByDirection) {
    for (const Speeds& speeds : {Speeds{1200, 9600}, {12345, 9600}, {9600, 12345}, {1, 2}}) {
        EXPECT_EQ(speedsOf(speeds), speeds);
    }
}

TEST(TerminalSpeeds, StandardOnesAreShownAsSuch) {
    tcflag_t flags = 0;
    speedsOf({9600, 9600}, &flags);
    EXPECT_EQ(flags & static_cast<tcflag_t>(CBAUD), static_cast<tcflag_t>(B9600));
    speedsOf({12345, 12345}, &flags);
    EXPECT_EQ(flags & static_cast<tcflag_t>(CBAUD), static_cast<tcflag_t>(BOTHER));
}

TEST(TerminalSpeeds, ThatAreNotGivenStayAsTheKernelMadeThem) {
    EXPECT_EQ(speedsOf({0, 0}), (Speeds{38400, 38400}));
    EXPECT_EQ(speedsOf({0x100000000, 0x100002580}), (Speeds{38400, 38400}));
    EXPECT_EQ(speedsOf({1200, 0}), (Speeds{1200, 38400}));
    // The input of a terminal without a speed of its own goes as fast as its output.
    EXPECT_EQ(speedsOf({0, 1200}), (Speeds{1200, 1200}));
}

}  // namespace
}  // namespace corvane
