#pragma once

#include <string>

#include "platform/firmware.h"

namespace corvane {

/// The boot arguments from /proc/cmdline, and device-tree nodes from where Linux shows them:
/// /sys/firmware/devicetree/base, or, for a node that is not there, QEMU's firmware configuration
/// (`-fw_cfg name=opt/mirel/options/KEY,...` is property KEY of node /options).
class LinuxFirmware final : public Firmware {
 public:
    /// In bytes; a longer property is not one of ours and counts as no data.
    static constexpr std::size_t longestProperty = 64 * 1024;

    explicit LinuxFirmware(std::string procRoot = "/proc", std::string sysRoot = "/sys");

    std::optional<std::uint64_t> bootArgument(std::string_view name) override;
    PropertyLookup readProperty(std::string_view node, std::string_view key) override;

 private:
    std::string procRoot_;
    std::string sysRoot_;
};

}  // namespace corvane
