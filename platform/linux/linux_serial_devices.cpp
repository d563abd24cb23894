#include "platform/linux/linux_serial_devices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/linux/small_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

/// The device number at `path`, links followed, written as sysfs writes it; "" when there is none.
std::string deviceNumberAt(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISCHR(status.st_mode)) {
        return {};
    }
    return std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
}

std::string deviceNumberOf(const fs::path& device) {
    auto content = readSmallFile(device / "dev", 4096);
    if (!content.ok()) {
        return {};
    }
    std::string number = content.take();
    number.erase(std::find(number.begin(), number.end(), '\n'), number.end());
    return number;
}

std::string classOfDriver(const std::string& driver) {
    return driver == "virtio_console" ? "MirelVirtIOConsole" : driver;
}

bool isBelow(const fs::path& root, const fs::path& path) {
    const auto [rest, below] = std::mismatch(root.begin(), root.end(), path.begin(), path.end());
    return rest == root.end() && below != path.end();
}

std::vector<std::string> driverClassesAbove(const fs::path& entry, const fs::path& sysRoot) {
    std::error_code error;
    const fs::path root = fs::canonical(sysRoot / "devices", error);
    // An entry's `device` is a link into the driver tree, whose directories are the tree. Devices
    // there may have a `device` of another kind: a file with a number.
    fs::path device = error ? fs::path() : fs::canonical(entry / "device", error);
    if (error) {
        return {};
    }
    std::vector<std::string> classes;
    for (; isBelow(root, device); device = device.parent_path()) {
        const fs::path driver = fs::read_symlink(device / "driver", error);
        if (!error) {
            classes.push_back(classOfDriver(driver.filename()));
        }
    }
    return classes;
}

/// A console of hvc stands in sysfs without a parent, whatever driver is behind it. In a machine
/// with virtio ports that is the ports' driver: what drives the first port drives the console.
bool isParentlessConsole(const fs::path& entry, const std::vector<std::string>& driverClasses) {
    return driverClasses.empty() && entry.filename().string().starts_with("hvc");
}

/// Sorted, since the order of a directory means nothing; empty when it can't be read, as the
/// class's is while its module is not loaded.
std::vector<fs::path> entriesOf(const fs::path& directory) {
    std::error_code error;
    std::vector<fs::path> entries;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        entries.push_back(entry->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

/// sysfs writes the slash of a name such as "pts/0" as an exclamation mark.
std::string deviceName(const fs::path& entry) {
    std::string name = entry.filename();
    std::replace(name.begin(), name.end(), '!', '/');
    return name;
}

}  // namespace

LinuxSerialDevices::LinuxSerialDevices(std::string sysRoot, std::string deviceRoot,
                                       std::string agentPath)
    : sysRoot_(std::move(sysRoot)),
      deviceRoot_(std::move(deviceRoot)),
      agentPath_(std::move(agentPath)) {}

std::optional<std::vector<SerialDevice>> LinuxSerialDevices::list() {
    const fs::path classes = sysRoot_ + "/class";
    std::error_code error;
    const fs::directory_iterator listable(classes, error);
    if (error) {
        return std::nullopt;
    }
    const std::string agentNumber = deviceNumberAt(agentPath_);
    const std::vector<fs::path> ports = entriesOf(classes / "virtio-ports");
    std::vector<SerialDevice> devices;
    for (const char* serialClass : {"virtio-ports", "tty"}) {
        for (const fs::path& entry : entriesOf(classes / serialClass)) {
            const bool agents = !agentNumber.empty() && deviceNumberOf(entry) == agentNumber;
            std::vector<std::string> driverClasses = driverClassesAbove(entry, sysRoot_);
            if (isParentlessConsole(entry, driverClasses) && !ports.empty()) {
                driverClasses = driverClassesAbove(ports.front(), sysRoot_);
            }
            devices.push_back({agents ? agentPath_ : deviceRoot_ + "/" + deviceName(entry),
                               std::move(driverClasses)});
        }
    }
    return devices;
}

}  // namespace corvane
