#pragma once

#include <sys/ioctl.h>

#include <array>
#include <cstdint>
#include <optional>

#include "core/descriptor_guard.h"
#include "core/system_result.h"

namespace corvane {

/// How many control characters a terminal's settings have. See 4.4BSD <termios.h>, NCCS.
inline constexpr std::size_t controlCharacterCount = 20;

/// A terminal's settings as hosts send them: with the flags, the speeds and the order of control
/// characters of 4.4BSD's `struct termios`. Kept as they came; translated where they are applied.
struct TerminalSettings {
    std::uint64_t c_iflag = 0;
    std::uint64_t c_oflag = 0;
    std::uint64_t c_cflag = 0;
    std::uint64_t c_lflag = 0;
    /// 0xFF disables one; not the numbers MIN and TIME, which stand among them. Without them the
    /// terminal's own stay.
    std::optional<std::array<std::uint8_t, controlCharacterCount>> c_cc;
    std::uint64_t c_ispeed = 0;  ///< bits per second; 0 leaves the terminal's speed alone
    std::uint64_t c_ospeed = 0;
};

/// A new pseudo-terminal. Both ends are close-on-exec and nobody's controlling terminal.
struct PseudoTerminalPair {
    DescriptorGuard master;
    DescriptorGuard slave;
};

/// Terminals. Main thread.
class Terminals {
 public:
    virtual ~Terminals() = default;

    /// A new pseudo-terminal with these settings and this size, or an errno value.
    virtual SystemResult<PseudoTerminalPair> openPair(const TerminalSettings& settings,
                                                      const winsize& size) = 0;

    /// Applies settings to the terminal behind `descriptor` at once. Returns 0 or an errno value.
    virtual int applySettings(int descriptor, const TerminalSettings& settings) = 0;
};

}  // namespace corvane
