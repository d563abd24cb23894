#pragma once

#include <string>

#include "platform/hypervisor.h"

namespace corvane {

/// Looks for a hypervisor in what firmware and kernel show in files: the device tree, the
/// hypervisor's own folder in /sys, and the machine's maker and model. For processors that do not
/// say it themselves. Nothing when none of these sources exists.
std::optional<std::int32_t> hypervisorInFiles(const std::string& procRoot,
                                              const std::string& sysRoot);

/// The processor's own word where it gives one (x86: CPUID leaf 1, ECX bit 31, which hypervisors
/// set and hardware leaves 0); elsewhere `hypervisorInFiles`.
class LinuxHypervisor final : public Hypervisor {
 public:
    explicit LinuxHypervisor(std::string procRoot = "/proc", std::string sysRoot = "/sys");

    std::optional<std::int32_t> presentIndicator() override;

 private:
    std::string procRoot_;
    std::string sysRoot_;
};

}  // namespace corvane
