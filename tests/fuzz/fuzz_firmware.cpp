// The real reader of the firmware's files, on files in memory, and what is made of them: whichever
// registry has the node, the port is that of its bytes. The first byte says which files there are,
// the two next how the rest is divided among them.

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "core/channel.h"
#include "core/descriptor_guard.h"
#include "platform/linux/boot_arguments.h"
#include "platform/linux/linux_firmware.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"
#include "tests/fuzz/check.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

/// What a machine has, as bits of a number.
constexpr unsigned treeThere = 1;
constexpr unsigned nodeInTree = 2;
constexpr unsigned keyInTree = 4;
constexpr unsigned configurationThere = 8;
constexpr unsigned nodeInConfiguration = 16;
constexpr unsigned keyInConfiguration = 32;
constexpr unsigned machineCount = 64;

/// A file in memory that other files are links to.
class SharedFile {
 public:
    void fill(std::string_view bytes) const {
        check(::ftruncate(file_.borrow(), 0) == 0 &&
                  ::pwrite(file_.borrow(), bytes.data(), bytes.size(), 0) ==
                      static_cast<ssize_t>(bytes.size()),
              "the file can be written");
    }
    [[nodiscard]] std::string path() const {
        return "/proc/self/fd/" + std::to_string(file_.borrow());
    }

 private:
    DescriptorGuard file_{::memfd_create("firmware", MFD_CLOEXEC)};
};

/// All machines there can be. Their files have the same contents.
class Machines {
 public:
    Machines() {
        std::string pattern = fs::temp_directory_path() / "corvane-fuzz-XXXXXX";
        check(::mkdtemp(pattern.data()) != nullptr, "there is room for the machines");
        root_ = pattern;
        for (unsigned machine = 0; machine < machineCount; ++machine) {
            build(machine);
        }
    }
    ~Machines() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    Machines(const Machines&) = delete;
    Machines& operator=(const Machines&) = delete;

    [[nodiscard]] std::string rootOf(unsigned machine) const {
        return root_ / std::to_string(machine);
    }

    SharedFile commandLine;
    SharedFile property;
    SharedFile configuration;

 private:
    void build(unsigned machine) const {
        const fs::path root = rootOf(machine);
        fs::create_directories(root);
        fs::create_symlink(commandLine.path(), root / "cmdline");
        const fs::path tree = root / "firmware/devicetree/base";
        const fs::path files = root / "firmware/qemu_fw_cfg/by_name";
        const auto has = [machine](unsigned part) { return (machine & part) != 0; };
        for (const char* node : {"options", "product"}) {
            if (has(treeThere)) {
                fs::create_directories(has(nodeInTree) ? tree / node : tree);
            }
            if (has(treeThere) && has(nodeInTree) && has(keyInTree)) {
                fs::create_symlink(property.path(), tree / node / portPropertyKey);
            }
            const fs::path folder = files / "opt/mirel" / node;
            if (has(configurationThere)) {
                fs::create_directories(has(nodeInConfiguration) ? folder : files);
            }
            if (has(configurationThere) && has(nodeInConfiguration) && has(keyInConfiguration)) {
                fs::create_directories(folder / portPropertyKey);
                fs::create_symlink(configuration.path(), folder / portPropertyKey / "raw");
            }
        }
    }

    fs::path root_;
};

struct Contents {
    std::string_view commandLine;
    std::string_view property;
    std::string_view configuration;
};

/// The bytes that count: the tree's where it has the node, even when it lacks the property.
std::optional<std::string_view> bytesOf(unsigned machine, const Contents& contents) {
    const auto has = [machine](unsigned parts) { return (machine & parts) == parts; };
    if (has(treeThere | nodeInTree)) {
        return has(keyInTree) ? std::optional(contents.property) : std::nullopt;
    }
    return has(configurationThere | nodeInConfiguration | keyInConfiguration)
               ? std::optional(contents.configuration)
               : std::nullopt;
}

std::uint64_t numberAtStart(std::string_view text) {
    std::uint64_t value = 0;
    for (const char character : text) {
        if (character < '0' || character > '9') {
            break;
        }
        const auto digit = static_cast<std::uint64_t>(character - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) {
            return std::numeric_limits<std::uint64_t>::max();
        }
        value = value * 10 + digit;
    }
    return value;
}

std::uint64_t littleEndianNumber(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        value |= std::uint64_t{static_cast<unsigned char>(bytes[index])} << (8 * index);
    }
    return value;
}

std::optional<std::uint64_t> portFrom(const char* node, bool asText) {
    constexpr std::uint64_t untouched = 4711;
    std::uint64_t port = untouched;
    const int failed = readPortProperty(node, asText, port);
    check(failed == 0 || (failed == 1 && port == untouched), "a failure leaves the port alone");
    return failed == 0 ? std::optional(port) : std::nullopt;
}

void checkMachine(unsigned machine, const Contents& contents, Firmware& firmware) {
    const auto text = bootArgumentText(contents.commandLine, portPropertyKey);
    check(firmware.bootArgument(portPropertyKey) == (text ? parseUnsigned(*text) : std::nullopt),
          "the command line is read whole");

    const auto bytes = bytesOf(machine, contents);
    const PropertyLookup lookup = firmware.readProperty(optionsNodePath, portPropertyKey);
    check((lookup.outcome == PropertyLookup::Outcome::data) == bytes.has_value(),
          "the property is found where it is");
    check(lookup.data == bytes.value_or(""), "its bytes are those of the file");

    const auto number = portFrom(optionsNodePath, true);
    check(number == (bytes ? std::optional(numberAtStart(*bytes)) : std::nullopt),
          "the text's number is the port");
    const auto binary = portFrom(productNodePath, false);
    check(binary == (bytes && bytes->size() <= 8 ? std::optional(littleEndianNumber(*bytes))
                                                 : std::nullopt),
          "the bytes' number is the port");
}

void run(std::string_view input) {
    if (input.size() < 3) {
        return;
    }
    static const Machines machines;
    const auto byteAt = [input](std::size_t place) {
        return std::size_t{static_cast<unsigned char>(input[place])};
    };
    const auto machine = static_cast<unsigned>(byteAt(0) % machineCount);
    std::string_view rest = input.substr(3);
    Contents contents;
    contents.property = rest.substr(0, byteAt(1));
    rest.remove_prefix(contents.property.size());
    contents.configuration = rest.substr(0, byteAt(2));
    contents.commandLine = rest.substr(contents.configuration.size());
    machines.commandLine.fill(contents.commandLine);
    machines.property.fill(contents.property);
    machines.configuration.fill(contents.configuration);

    const FakePlatform fakes;
    const std::string root = machines.rootOf(machine);
    LinuxFirmware firmware(root, root);
    Platform services = platformWith({.firmware = &firmware});
    const PlatformScope scope(services);
    checkMachine(machine, contents, firmware);
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
