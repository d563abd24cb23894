#include "platform/linux/linux_firmware.h"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/linux/boot_arguments.h"
#include "platform/linux/small_file.h"

namespace corvane {
namespace {

using Outcome = PropertyLookup::Outcome;

// Above the longest command line of any architecture.
constexpr std::size_t longestCommandLine = 1024 * 1024;

/// 0, or why there is no directory at `path`.
int directoryError(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return errno;
    }
    return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

bool isFileName(std::string_view key) {
    return !key.empty() && key != "." && key != ".." &&
           key.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

/// Where a registry keeps a node's properties.
struct Node {
    std::string directory;
    const char* valueFile;  ///< below the property's name
};

PropertyLookup readFrom(const Node& node, std::string_view key) {
    if (!isFileName(key)) {
        return {Outcome::keyNotPrepared, 0, {}};
    }
    const std::string property = node.directory + "/" + std::string(key);
    struct stat status {};
    if (::stat(property.c_str(), &status) != 0) {
        return {Outcome::propertyAbsent, 0, {}};
    }
    auto content = readSmallFile(property + node.valueFile, LinuxFirmware::longestProperty);
    if (!content.ok()) {
        return {Outcome::notData, content.error(), {}};
    }
    return {Outcome::data, 0, content.take()};
}

}  // namespace

LinuxFirmware::LinuxFirmware(std::string procRoot, std::string sysRoot)
    : procRoot_(std::move(procRoot)), sysRoot_(std::move(sysRoot)) {}

std::optional<std::uint64_t> LinuxFirmware::bootArgument(std::string_view name) {
    auto commandLine = readSmallFile(procRoot_ + "/cmdline", longestCommandLine);
    if (!commandLine.ok()) {
        return std::nullopt;
    }
    const auto text = bootArgumentText(commandLine.value(), name);
    return text ? parseUnsigned(*text) : std::nullopt;
}

PropertyLookup LinuxFirmware::readProperty(std::string_view node, std::string_view key) {
    const std::string deviceTree = sysRoot_ + "/firmware/devicetree/base";
    const std::string configuration = sysRoot_ + "/firmware/qemu_fw_cfg/by_name";

    const int treeError = directoryError(deviceTree);
    const int configurationError = directoryError(configuration);
    if (treeError != 0 && configurationError != 0) {
        return {Outcome::registryUnreachable, configurationError, {}};
    }
    // Recent kernels show an empty device tree on machines that have none, so that it is the node,
    // not the tree, that decides who is asked.
    const Node places[] = {{deviceTree + std::string(node), ""},
                           {configuration + "/opt/mirel" + std::string(node), "/raw"}};
    for (const Node& place : places) {
        if (directoryError(place.directory) == 0) {
            return readFrom(place, key);
        }
    }
    return {Outcome::nodeAbsent, 0, {}};
}

}  // namespace corvane
