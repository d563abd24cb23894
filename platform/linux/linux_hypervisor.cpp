#include "platform/linux/linux_hypervisor.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/linux/small_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

#if defined(__x86_64__) || defined(__i386__)
std::optional<std::int32_t> processorIndicator() {
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(ecx >> 31);
}
#else
std::optional<std::int32_t> processorIndicator() {
    return std::nullopt;
}
#endif

// How the makers' and models' names of virtual machines begin. Makers that build hardware, too,
// are known by the model: Microsoft by "Virtual Machine", Red Hat by "KVM".
constexpr std::array<std::string_view, 16> virtualNames{
    "QEMU",           "KVM",  "Bochs",       "VMware", "VMW",        "innotek",
    "Virtual",        "Xen",  "Parallels",   "BHYVE",  "Apple Virt", "OpenStack",
    "Google Compute", "RHEL", "Standard PC", "oVirt"};

bool namesVirtualMachine(std::string_view text) {
    return std::any_of(virtualNames.begin(), virtualNames.end(),
                       [text](std::string_view name) { return text.starts_with(name); });
}

/// The device tree has a node for the hypervisor, or QEMU's firmware configuration device.
bool deviceTreeShowsHypervisor(const fs::path& tree) {
    std::error_code error;
    for (fs::directory_iterator node(tree, error), end; !error && node != end;
         node.increment(error)) {
        const std::string name = node->path().filename();
        if (name == "hypervisor" || name.starts_with("fw-cfg@")) {
            return true;
        }
    }
    return false;
}

bool machineIsVirtual(const fs::path& identity) {
    for (const char* name : {"sys_vendor", "product_name", "board_vendor", "bios_vendor"}) {
        auto content = readSmallFile(identity / name, 4096);
        if (content.ok() && namesVirtualMachine(content.value())) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<std::int32_t> hypervisorInFiles(const std::string& procRoot,
                                              const std::string& sysRoot) {
    const fs::path tree = procRoot + "/device-tree";
    const fs::path hypervisorType = sysRoot + "/hypervisor/type";
    const fs::path identity = sysRoot + "/class/dmi/id";

    std::error_code error;
    if (fs::exists(hypervisorType, error) || deviceTreeShowsHypervisor(tree) ||
        machineIsVirtual(identity)) {
        return 1;
    }
    if (fs::exists(tree, error) || fs::exists(identity, error)) {
        return 0;
    }
    return std::nullopt;
}

LinuxHypervisor::LinuxHypervisor(std::string procRoot, std::string sysRoot)
    : procRoot_(std::move(procRoot)), sysRoot_(std::move(sysRoot)) {}

std::optional<std::int32_t> LinuxHypervisor::presentIndicator() {
    if (const auto indicator = processorIndicator()) {
        return indicator;
    }
    return hypervisorInFiles(procRoot_, sysRoot_);
}

}  // namespace corvane
