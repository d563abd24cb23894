#pragma once

// Names of flags and control characters come from <termios.h> or <asm/termbits.h>, which exclude
// each other: include one of them first.

#include <array>
#include <cstdint>
#include <vector>

namespace corvane {

/// A flag of a host, by its 4.4BSD name, and its counterpart here.
struct FlagRow {
    const char* name;
    std::uint64_t theirs;
    unsigned ours;
};

inline const std::vector<FlagRow> inputRows{
    {"IGNBRK", 0x1, IGNBRK},      {"BRKINT", 0x2, BRKINT},  {"IGNPAR", 0x4, IGNPAR},
    {"PARMRK", 0x8, PARMRK},      {"INPCK", 0x10, INPCK},   {"ISTRIP", 0x20, ISTRIP},
    {"INLCR", 0x40, INLCR},       {"IGNCR", 0x80, IGNCR},   {"ICRNL", 0x100, ICRNL},
    {"IXON", 0x200, IXON},        {"IXOFF", 0x400, IXOFF},  {"IXANY", 0x800, IXANY},
    {"IMAXBEL", 0x2000, IMAXBEL}, {"IUTF8", 0x4000, IUTF8},
};

inline const std::vector<FlagRow> outputRows{
    {"OPOST", 0x1, OPOST},    {"ONLCR", 0x2, ONLCR},  {"OXTABS", 0x4, XTABS},
    {"ONOEOT", 0x8, 0},       {"OCRNL", 0x10, OCRNL}, {"ONOCR", 0x20, ONOCR},
    {"ONLRET", 0x40, ONLRET}, {"OFILL", 0x80, OFILL}, {"OFDEL", 0x20000, OFDEL},
};

/// Without the size of characters and the flow control by wires, which take two bits each.
inline const std::vector<FlagRow> controlRows{
    {"CSTOPB", 0x400, CSTOPB},        {"CREAD", 0x800, CREAD},          {"PARENB", 0x1000, PARENB},
    {"PARODD", 0x2000, PARODD},       {"HUPCL", 0x4000, HUPCL},         {"CLOCAL", 0x8000, CLOCAL},
    {"CCTS_OFLOW alone", 0x10000, 0}, {"CRTS_IFLOW alone", 0x20000, 0},
};

inline const std::vector<FlagRow> localRows{
    {"ECHOKE", 0x1, ECHOKE},        {"ECHOE", 0x2, ECHOE},
    {"ECHOK", 0x4, ECHOK},          {"ECHO", 0x8, ECHO},
    {"ECHONL", 0x10, ECHONL},       {"ECHOPRT", 0x20, ECHOPRT},
    {"ECHOCTL", 0x40, ECHOCTL},     {"ISIG", 0x80, ISIG},
    {"ICANON", 0x100, ICANON},      {"ALTWERASE", 0x200, 0},
    {"IEXTEN", 0x400, IEXTEN},      {"EXTPROC", 0x800, EXTPROC},
    {"TOSTOP", 0x400000, TOSTOP},   {"FLUSHO", 0x800000, FLUSHO},
    {"NOKERNINFO", 0x2000000, 0},   {"PENDIN", 0x20000000, PENDIN},
    {"NOFLSH", 0x80000000, NOFLSH},
};

/// Where a host's control characters go, by their place; -1 for nowhere.
inline constexpr std::array<int, 20> controlCharacterPlaces{
    VEOF,  VEOL, VEOL2,  VERASE, VWERASE, VKILL,    VREPRINT, -1,    VINTR, VQUIT,
    VSUSP, -1,   VSTART, VSTOP,  VLNEXT,  VDISCARD, VMIN,     VTIME, -1,    -1,
};

}  // namespace corvane
