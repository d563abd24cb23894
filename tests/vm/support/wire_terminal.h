#pragma once

#include <cstdint>

#include <boost/json/object.hpp>

namespace corvane::vm {

/// Terminal settings as they go over the wire: the flags and the places of the control characters
/// are numbered as in 4.4BSD's termios.h, whatever the guest's own numbers are.
struct WireTerminal {
    std::int64_t inputFlags = 0;
    std::int64_t outputFlags = 0;
    std::int64_t controlFlags = 0;
    std::int64_t localFlags = 0;
    int interrupt = 3;
    int suspend = 26;
    int speed = 38400;

    boost::json::object record() const;
};

inline constexpr std::int64_t bsdIcrnl = 0x100;
inline constexpr std::int64_t bsdIxon = 0x200;
inline constexpr std::int64_t bsdOpost = 1;
inline constexpr std::int64_t bsdOnlcr = 2;
inline constexpr std::int64_t bsdCs7 = 0x200;
inline constexpr std::int64_t bsdCs8 = 0x300;
inline constexpr std::int64_t bsdCread = 0x800;
inline constexpr std::int64_t bsdParenb = 0x1000;
inline constexpr std::int64_t bsdHupcl = 0x4000;
inline constexpr std::int64_t bsdEchoe = 2;
inline constexpr std::int64_t bsdEchok = 4;
inline constexpr std::int64_t bsdEcho = 8;
inline constexpr std::int64_t bsdIsig = 0x80;
inline constexpr std::int64_t bsdIcanon = 0x100;
inline constexpr std::int64_t bsdIexten = 0x400;

/// What a person at a terminal expects.
inline constexpr WireTerminal cookedTerminal{
    .inputFlags = bsdIcrnl | bsdIxon,
    .outputFlags = bsdOpost | bsdOnlcr,
    .controlFlags = bsdCread | bsdCs8 | bsdHupcl,
    .localFlags = bsdEcho | bsdEchoe | bsdEchok | bsdIsig | bsdIcanon | bsdIexten,
};

/// Every byte passes as it is.
inline constexpr WireTerminal rawTerminal{.controlFlags = bsdCread | bsdCs8};

}  // namespace corvane::vm
