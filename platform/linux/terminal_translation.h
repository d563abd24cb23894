#pragma once

#include <asm/termbits.h>  // cannot be included beside <termios.h>

#include "platform/terminals.h"

namespace corvane {

/// A terminal's settings as the kernel takes them, with speeds of any number. See
/// ioctl_tty(2), TCGETS2. Architectures without that request have the speeds in the plain record.
#ifdef TCGETS2
using KernelTerminalSettings = ::termios2;
inline constexpr unsigned long readTerminalSettings = TCGETS2;
inline constexpr unsigned long writeTerminalSettings = TCSETS2;
#else
using KernelTerminalSettings = ::termios;
inline constexpr unsigned long readTerminalSettings = TCGETS;
inline constexpr unsigned long writeTerminalSettings = TCSETS;
#endif

/// What a terminal's settings become when `settings` are applied while they are `current`.
///
/// The flags are all replaced: those with a counterpart here by it, all others are off. Of
/// `current` stay the line discipline, the control characters that `settings` do not give (all of
/// them when there are none), and a speed that they give as 0 or as more than 32 bits.
KernelTerminalSettings translateSettings(const TerminalSettings& settings,
                                         const KernelTerminalSettings& current) noexcept;

}  // namespace corvane
