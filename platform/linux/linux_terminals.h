#pragma once

#include "platform/terminals.h"

namespace corvane {

/// Terminals of Linux. Settings are translated as terminal_translation.h says.
class LinuxTerminals final : public Terminals {
 public:
    SystemResult<PseudoTerminalPair> openPair(const TerminalSettings& settings,
                                              const winsize& size) override;
    /// ENOTTY for what is no terminal.
    int applySettings(int descriptor, const TerminalSettings& settings) override;
};

}  // namespace corvane
