#include "platform/linux/terminal_translation.h"

#include <algorithm>
#include <limits>
#include <span>

namespace corvane {
namespace {

/// `theirs`, when all of its bits are set, becomes `ours`.
struct Flag {
    std::uint64_t theirs;
    tcflag_t ours;
};

// Flags that are not listed have no counterpart here.

constexpr Flag inputFlags[] = {
    {0x1, IGNBRK},  {0x2, BRKINT},  {0x4, IGNPAR},     {0x8, PARMRK},   {0x10, INPCK},
    {0x20, ISTRIP}, {0x40, INLCR},  {0x80, IGNCR},     {0x100, ICRNL},  {0x200, IXON},
    {0x400, IXOFF}, {0x800, IXANY}, {0x2000, IMAXBEL}, {0x4000, IUTF8},
};

constexpr Flag outputFlags[] = {
    {0x1, OPOST},  {0x2, ONLCR},   {0x4, XTABS},  {0x10, OCRNL},
    {0x20, ONOCR}, {0x40, ONLRET}, {0x80, OFILL}, {0x20000, OFDEL},
};

// Flow control by wires is one flag for both directions here. Half of it is dropped: with the other
// half on, a line whose wire for it is missing would hang for ever.
constexpr Flag controlFlags[] = {
    {0x400, CSTOPB}, {0x800, CREAD},   {0x1000, PARENB},   {0x2000, PARODD},
    {0x4000, HUPCL}, {0x8000, CLOCAL}, {0x30000, CRTSCTS},
};

constexpr Flag localFlags[] = {
    {0x1, ECHOKE},      {0x2, ECHOE},         {0x4, ECHOK},         {0x8, ECHO},
    {0x10, ECHONL},     {0x20, ECHOPRT},      {0x40, ECHOCTL},      {0x80, ISIG},
    {0x100, ICANON},    {0x400, IEXTEN},      {0x800, EXTPROC},     {0x400000, TOSTOP},
    {0x800000, FLUSHO}, {0x20000000, PENDIN}, {0x80000000, NOFLSH},
};

/// Bits per character are a number of two bits.
constexpr unsigned characterSizeShift = 8;
constexpr tcflag_t characterSizes[] = {CS5, CS6, CS7, CS8};

struct ControlCharacter {
    std::size_t theirs;
    std::size_t ours;
};

constexpr ControlCharacter controlCharacters[] = {
    {0, VEOF},  {1, VEOL},  {2, VEOL2},  {3, VERASE},  {4, VWERASE}, {5, VKILL},   {6, VREPRINT},
    {8, VINTR}, {9, VQUIT}, {10, VSUSP}, {12, VSTART}, {13, VSTOP},  {14, VLNEXT}, {15, VDISCARD},
};

/// These two are numbers, although they stand among the characters.
constexpr ControlCharacter controlNumbers[] = {{16, VMIN}, {17, VTIME}};

constexpr std::uint8_t disabledThere = 0xFF;
constexpr cc_t disabledHere = 0;  // _POSIX_VDISABLE of <unistd.h>

struct Speed {
    std::uint32_t bitsPerSecond;
    tcflag_t code;
};

constexpr Speed standardSpeeds[] = {
    {50, B50},           {75, B75},           {110, B110},         {134, B134},
    {150, B150},         {200, B200},         {300, B300},         {600, B600},
    {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
    {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
    {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
    {3500000, B3500000}, {4000000, B4000000},
};

/// The bits of the speeds' codes.
constexpr tcflag_t outputCode = CBAUD;
constexpr tcflag_t inputCode = CIBAUD;

tcflag_t translateFlags(std::span<const Flag> flags, std::uint64_t word) noexcept {
    tcflag_t translated = 0;
    for (const Flag& flag : flags) {
        if ((word & flag.theirs) == flag.theirs) {
            translated |= flag.ours;
        }
    }
    return translated;
}

tcflag_t characterSize(std::uint64_t word) noexcept {
    return characterSizes[(word >> characterSizeShift) & 3U];
}

/// The code for a speed: programs that know no others are shown the standard ones as such.
tcflag_t codeOf(std::uint32_t bitsPerSecond) noexcept {
    const auto* const found =
        std::find_if(std::begin(standardSpeeds), std::end(standardSpeeds),
                     [=](const Speed& speed) { return speed.bitsPerSecond == bitsPerSecond; });
    return found == std::end(standardSpeeds) ? BOTHER : found->code;
}

bool isSpeed(std::uint64_t value) noexcept {
    return value != 0 && value <= std::numeric_limits<speed_t>::max();
}

void translateSpeeds(const TerminalSettings& settings, KernelTerminalSettings& terminal) noexcept {
    if (isSpeed(settings.c_ospeed)) {
        terminal.c_ospeed = static_cast<speed_t>(settings.c_ospeed);
        terminal.c_cflag = (terminal.c_cflag & ~outputCode) | codeOf(terminal.c_ospeed);
    }
    if (isSpeed(settings.c_ispeed)) {
        terminal.c_ispeed = static_cast<speed_t>(settings.c_ispeed);
        // No code means: as the output's. Most programs know no other way.
        const tcflag_t code =
            terminal.c_ispeed == terminal.c_ospeed ? B0 : codeOf(terminal.c_ispeed);
        terminal.c_cflag = (terminal.c_cflag & ~inputCode) | (code << IBSHIFT);
    }
}

void translateControlCharacters(std::span<const std::uint8_t, controlCharacterCount> theirs,
                                KernelTerminalSettings& terminal) noexcept {
    const auto storeNumbers = [&] {
        for (const ControlCharacter& number : controlNumbers) {
            terminal.c_cc[number.ours] = theirs[number.theirs];
        }
    };
    storeNumbers();
    for (const ControlCharacter& character : controlCharacters) {
        const std::uint8_t value = theirs[character.theirs];
        terminal.c_cc[character.ours] = value == disabledThere ? disabledHere : value;
    }
    // On some architectures the numbers share their places with characters. They count for input
    // that is not cut into lines, the characters for input that is.
    if ((terminal.c_lflag & ICANON) == 0) {
        storeNumbers();
    }
}

}  // namespace

KernelTerminalSettings translateSettings(const TerminalSettings& settings,
                                         const KernelTerminalSettings& current) noexcept {
    KernelTerminalSettings terminal = current;
    terminal.c_iflag = translateFlags(inputFlags, settings.c_iflag);
    terminal.c_oflag = translateFlags(outputFlags, settings.c_oflag);
    terminal.c_lflag = translateFlags(localFlags, settings.c_lflag);
    terminal.c_cflag = (current.c_cflag & (outputCode | inputCode)) |
                       characterSize(settings.c_cflag) |
                       translateFlags(controlFlags, settings.c_cflag);
    translateSpeeds(settings, terminal);
    if (settings.c_cc) {
        translateControlCharacters(*settings.c_cc, terminal);
    }
    return terminal;
}

}  // namespace corvane
