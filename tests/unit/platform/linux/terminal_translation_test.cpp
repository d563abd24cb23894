#include "platform/linux/terminal_translation.h"

#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/terminal_rows.h"

namespace corvane {
namespace {

constexpr tcflag_t allOn = std::numeric_limits<tcflag_t>::max();
constexpr tcflag_t speedCodes = static_cast<tcflag_t>(CBAUD) | static_cast<tcflag_t>(CIBAUD);
constexpr tcflag_t crtscts = CRTSCTS;

/// A terminal on which everything is on, or everything off.
KernelTerminalSettings allAlike(bool on) {
    KernelTerminalSettings terminal{};
    const tcflag_t word = on ? allOn : 0;
    terminal.c_iflag = terminal.c_oflag = terminal.c_cflag = terminal.c_lflag = word;
    return terminal;
}

unsigned counterpart(const std::vector<FlagRow>& rows, std::uint64_t bit) {
    for (const FlagRow& row : rows) {
        if (row.theirs == bit) {
            return row.ours;
        }
    }
    return 0;
}

unsigned allCounterparts(const std::vector<FlagRow>& rows) {
    unsigned all = 0;
    for (const FlagRow& row : rows) {
        all |= row.ours;
    }
    return all;
}

using TheirWord = std::uint64_t TerminalSettings::*;
using OurWord = tcflag_t KernelTerminalSettings::*;

tcflag_t translated(TheirWord theirs, OurWord ours, std::uint64_t word, bool currentlyOn) {
    TerminalSettings settings;
    settings.*theirs = word;
    return translateSettings(settings, allAlike(currentlyOn)).*ours;
}

struct Word {
    const char* name;
    TheirWord theirs;
    OurWord ours;
    const std::vector<FlagRow>& rows;
};

const Word plainWords[] = {
    {"iflag", &TerminalSettings::c_iflag, &KernelTerminalSettings::c_iflag, inputRows},
    {"oflag", &TerminalSettings::c_oflag, &KernelTerminalSettings::c_oflag, outputRows},
    {"lflag", &TerminalSettings::c_lflag, &KernelTerminalSettings::c_lflag, localRows},
};

TEST(TerminalTranslation, EveryBitAloneTurnsOnItsCounterpartAndNothingElse) {
    for (const Word& word : plainWords) {
        for (unsigned bit = 0; bit < 64; ++bit) {
            const std::uint64_t value = std::uint64_t{1} << bit;
            for (const bool before : {false, true}) {
                EXPECT_EQ(translated(word.theirs, word.ours, value, before),
                          counterpart(word.rows, value))
                    << word.name << " bit " << bit << ", before: " << before;
            }
        }
    }
}

TEST(TerminalTranslation, EveryBitThatIsMissingTurnsOffItsCounterpartAndNothingElse) {
    for (const Word& word : plainWords) {
        for (unsigned bit = 0; bit < 64; ++bit) {
            const std::uint64_t value = std::uint64_t{1} << bit;
            for (const bool before : {false, true}) {
                EXPECT_EQ(translated(word.theirs, word.ours, ~value, before),
                          allCounterparts(word.rows) & ~counterpart(word.rows, value))
                    << word.name << " bit " << bit << ", before: " << before;
            }
        }
    }
}

TEST(TerminalTranslation, NoFlagsTurnAllOffAlsoThoseThatOnlyExistHere) {
    const KernelTerminalSettings terminal = translateSettings({}, allAlike(true));
    EXPECT_EQ(terminal.c_iflag, 0U);
    EXPECT_EQ(terminal.c_oflag, 0U);
    EXPECT_EQ(terminal.c_lflag, 0U);
    EXPECT_EQ(terminal.c_cflag, speedCodes);
}

/// The word for the line itself; the speeds have bits in it here, which stay.
tcflag_t translatedLine(std::uint64_t word, bool currentlyOn = false) {
    const tcflag_t ours =
        translated(&TerminalSettings::c_cflag, &KernelTerminalSettings::c_cflag, word, currentlyOn);
    EXPECT_EQ(ours & speedCodes, currentlyOn ? speedCodes : 0U);
    return ours & ~speedCodes;
}

TEST(TerminalTranslation, EveryBitOfTheLineAlone) {
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t value = std::uint64_t{1} << bit;
        unsigned expected = counterpart(controlRows, value);
        if (value == 0x100) {
            expected = CS6;
        } else if (value == 0x200) {
            expected = CS7;
        }
        for (const bool before : {false, true}) {
            EXPECT_EQ(translatedLine(value, before), expected) << bit << ", before: " << before;
        }
    }
}

TEST(TerminalTranslation, EveryBitOfTheLineMissing) {
    const unsigned all = allCounterparts(controlRows) | CS8 | crtscts;
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t value = std::uint64_t{1} << bit;
        unsigned expected = all & ~counterpart(controlRows, value);
        if (value == 0x100) {
            expected = (all & ~static_cast<unsigned>(CSIZE)) | CS7;
        } else if (value == 0x200) {
            expected = (all & ~static_cast<unsigned>(CSIZE)) | CS6;
        } else if (value == 0x10000 || value == 0x20000) {
            expected = all & ~crtscts;
        }
        for (const bool before : {false, true}) {
            EXPECT_EQ(translatedLine(~value, before), expected) << bit << ", before: " << before;
        }
    }
}

TEST(TerminalTranslation, TheSizeOfACharacter) {
    EXPECT_EQ(translatedLine(0x000, true), static_cast<tcflag_t>(CS5));
    EXPECT_EQ(translatedLine(0x100, true), static_cast<tcflag_t>(CS6));
    EXPECT_EQ(translatedLine(0x200, true), static_cast<tcflag_t>(CS7));
    EXPECT_EQ(translatedLine(0x300, true), static_cast<tcflag_t>(CS8));
}

TEST(TerminalTranslation, FlowControlByWiresTakesBothDirections) {
    EXPECT_EQ(translatedLine(0x30000), crtscts);
    EXPECT_EQ(translatedLine(0x10000, true), 0U);
    EXPECT_EQ(translatedLine(0x20000, true), 0U);
}

TEST(TerminalTranslation, ANegativeNumberIsItsLowestFlags) {
    // What is left of -2147483648, read with sign.
    TerminalSettings settings;
    settings.c_lflag = 0xFFFFFFFF80000000;
    EXPECT_EQ(translateSettings(settings, {}).c_lflag, static_cast<tcflag_t>(NOFLSH));
}

constexpr cc_t mark = 'x';

KernelTerminalSettings marked(tcflag_t localFlags = 0) {
    KernelTerminalSettings terminal{};
    terminal.c_lflag = localFlags;
    std::memset(terminal.c_cc, mark, sizeof terminal.c_cc);
    return terminal;
}

TEST(TerminalTranslation, EveryControlCharacterGoesToItsPlaceAndNowhereElse) {
    for (const std::uint64_t canonical : {0x000U, 0x100U}) {
        for (std::size_t their = 0; their < controlCharacterCount; ++their) {
            TerminalSettings before;
            before.c_lflag = canonical;
            before.c_cc.emplace().fill(mark);
            TerminalSettings after = before;
            (*after.c_cc)[their] = 'y';
            const KernelTerminalSettings terminal = translateSettings(after, marked());
            for (std::size_t our = 0; our < sizeof terminal.c_cc; ++our) {
                const bool itsPlace = controlCharacterPlaces[their] == static_cast<int>(our);
                EXPECT_EQ(terminal.c_cc[our], itsPlace ? 'y' : mark) << their << " at " << our;
            }
        }
    }
}

TEST(TerminalTranslation, DisabledCharactersAreDisabledAndNumbersStayNumbers) {
    TerminalSettings settings;
    settings.c_cc.emplace().fill(0xFF);
    const KernelTerminalSettings terminal = translateSettings(settings, marked());
    for (const int place : controlCharacterPlaces) {
        if (place >= 0) {
            const int expected = place == VMIN || place == VTIME ? 0xFF : 0;
            EXPECT_EQ(terminal.c_cc[place], expected) << place;
        }
    }
}

TEST(TerminalTranslation, PlacesWithoutACounterpartThereStay) {
    TerminalSettings settings;
    settings.c_cc.emplace().fill('y');
    EXPECT_EQ(translateSettings(settings, marked()).c_cc[VSWTC], mark);
}

TEST(TerminalTranslation, WithoutControlCharactersTheTerminalsOwnStay) {
    const KernelTerminalSettings terminal = translateSettings({}, marked());
    for (const cc_t character : terminal.c_cc) {
        EXPECT_EQ(character, mark);
    }
}

TEST(TerminalTranslation, TheLineDisciplineStays) {
    KernelTerminalSettings current{};
    current.c_line = 3;
    EXPECT_EQ(translateSettings({}, current).c_line, 3);
}

/// At 38,400 bits per second in both directions, as a new terminal is.
KernelTerminalSettings usualSpeed() {
    KernelTerminalSettings terminal{};
    terminal.c_cflag = B38400;
    terminal.c_ispeed = terminal.c_ospeed = 38400;
    return terminal;
}

struct SpeedCodes {
    tcflag_t output;
    tcflag_t input;  ///< 0: as the output
};

SpeedCodes codesFor(std::uint64_t input, std::uint64_t output) {
    TerminalSettings settings;
    settings.c_ispeed = input;
    settings.c_ospeed = output;
    const tcflag_t flags = translateSettings(settings, usualSpeed()).c_cflag;
    return {flags & static_cast<tcflag_t>(CBAUD),
            (flags & static_cast<tcflag_t>(CIBAUD)) >> IBSHIFT};
}

TEST(TerminalTranslation, StandardSpeedsHaveTheirCodes) {
    const std::pair<std::uint64_t, tcflag_t> speeds[] = {
        {50, B50},           {75, B75},           {110, B110},         {134, B134},
        {150, B150},         {200, B200},         {300, B300},         {600, B600},
        {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
        {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
        {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
        {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
        {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
        {3500000, B3500000}, {4000000, B4000000},
    };
    for (const auto& [speed, code] : speeds) {
        EXPECT_EQ(codesFor(0, speed).output, code) << speed;
        EXPECT_EQ(codesFor(0, speed).input, 0U) << speed;
        EXPECT_EQ(codesFor(speed, speed).output, code) << speed;
        EXPECT_EQ(codesFor(speed, speed).input, 0U) << speed;
        EXPECT_EQ(codesFor(speed, 0).output, static_cast<tcflag_t>(B38400)) << speed;
        EXPECT_EQ(codesFor(speed, 0).input, speed == 38400 ? 0U : code) << speed;
    }
}

TEST(TerminalTranslation, OtherSpeedsAreGivenAsNumbers) {
    for (const std::uint64_t speed :
         {std::uint64_t{1}, std::uint64_t{12345}, std::uint64_t{9601}, std::uint64_t{0xFFFFFFFF}}) {
        TerminalSettings settings;
        settings.c_ispeed = speed;
        settings.c_ospeed = 9600;
        KernelTerminalSettings terminal = translateSettings(settings, usualSpeed());
        EXPECT_EQ(terminal.c_ispeed, speed);
        EXPECT_EQ(codesFor(speed, 9600).input, static_cast<tcflag_t>(BOTHER));
        EXPECT_EQ(codesFor(speed, 9600).output, static_cast<tcflag_t>(B9600));
        settings.c_ispeed = 0;
        settings.c_ospeed = speed;
        terminal = translateSettings(settings, usualSpeed());
        EXPECT_EQ(terminal.c_ospeed, speed);
        EXPECT_EQ(codesFor(0, speed).output, static_cast<tcflag_t>(BOTHER));
    }
}

TEST(TerminalTranslation, NoSpeedAndOneOfMoreThan32BitsLeaveTheTerminalsOwn) {
    for (const std::uint64_t speed :
         {std::uint64_t{0}, std::uint64_t{0x100000000}, std::uint64_t{0xFFFFFFFFFFFFFFFF}}) {
        TerminalSettings settings;
        settings.c_ispeed = settings.c_ospeed = speed;
        const KernelTerminalSettings terminal = translateSettings(settings, usualSpeed());
        EXPECT_EQ(terminal.c_cflag & speedCodes, static_cast<tcflag_t>(B38400)) << speed;
        EXPECT_EQ(terminal.c_ispeed, 38400U) << speed;
        EXPECT_EQ(terminal.c_ospeed, 38400U) << speed;
    }
}

}  // namespace
}  // namespace corvane
