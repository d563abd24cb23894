#include "platform/linux/input_description.h"

#include <linux/hid.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/linux/interrupted_call.h"
#include "platform/linux/small_file.h"

namespace corvane {

namespace {

/// evdev waits for its device's lock, which a signal interrupts.
int ask(int descriptor, unsigned long request, void* answer) {
    return untilUninterrupted([&] { return ::ioctl(descriptor, request, answer); });
}

/// A set of bits as the kernel hands it out: in words of a long.
template <std::size_t highest>
class BitSet {
 public:
    /// The codes of `type` that the device can send; for type 0 the types. Empty when it refuses.
    BitSet(int descriptor, unsigned type) {
        static_cast<void>(ask(descriptor, EVIOCGBIT(type, sizeof words_), words_.data()));
    }
    [[nodiscard]] bool has(std::size_t bit) const {
        return ((words_[bit / bitsPerWord] >> (bit % bitsPerWord)) & 1UL) != 0;
    }

 private:
    static constexpr std::size_t bitsPerWord = sizeof(unsigned long) * CHAR_BIT;
    std::array<unsigned long, highest / bitsPerWord + 1> words_{};
};

std::string physOf(int descriptor) {
    std::array<char, 256> text{};
    // A device may have none. The last byte stays zero whatever comes.
    static_cast<void>(ask(descriptor, EVIOCGPHYS(sizeof text - 1), text.data()));
    return text.data();
}

/// The buttons that machines have themselves: of ACPI, fixed or a device of its own, and of device
/// trees.
bool isMachinesButton(const InputDescription& description) {
    const std::string_view phys = description.phys;
    return description.bus == BUS_HOST &&
           (phys.starts_with("LNXPWRBN/") || phys.starts_with("PNP0C0C/") ||
            phys.starts_with("gpio-keys/"));
}

}  // namespace

int addHidParent(InputDescription& description, int descriptor, const std::string& sysRoot) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        return errno;
    }
    const std::string parent = sysRoot + "/dev/char/" + std::to_string(major(status.st_rdev)) +
                               ":" + std::to_string(minor(status.st_rdev)) + "/device/device";
    std::error_code error;
    const auto bus = std::filesystem::read_symlink(parent + "/subsystem", error);
    description.isHid = !error && bus.filename() == "hid";
    if (!description.isHid) {
        return error == std::errc::no_such_file_or_directory ? 0 : error.value();
    }
    auto content = readSmallFile(parent + "/report_descriptor", HID_MAX_DESCRIPTOR_SIZE);
    if (content.ok()) {
        description.reportDescriptor = content.take();
    }
    return content.error();
}

SystemResult<InputDescription> describeInputDevice(int descriptor, const std::string& sysRoot) {
    input_id id{};
    if (ask(descriptor, EVIOCGID, &id) < 0) {
        return SystemError{errno};
    }
    const BitSet<EV_MAX> types(descriptor, 0);
    const BitSet<KEY_MAX> keys(descriptor, EV_KEY);
    const BitSet<MSC_MAX> miscellaneous(descriptor, EV_MSC);
    InputDescription description;
    description.bus = id.bustype;
    description.phys = physOf(descriptor);
    description.hasKeys = types.has(EV_KEY);
    description.hasPowerKey = description.hasKeys && keys.has(KEY_POWER);
    description.hasScanCodes = types.has(EV_MSC) && miscellaneous.has(MSC_SCAN);
    if (const int error = addHidParent(description, descriptor, sysRoot)) {
        return SystemError{error};
    }
    return description;
}

KeySource keySourceOf(const InputDescription& description, std::uint32_t usagePage) {
    if (!description.hasKeys) {
        return KeySource::none;
    }
    if (description.isHid) {
        const bool isOfPage = primaryUsagePage(description.reportDescriptor) == usagePage;
        return description.hasScanCodes && isOfPage ? KeySource::hid : KeySource::none;
    }
    const bool counts =
        usagePage == consumerUsagePage && description.hasPowerKey && isMachinesButton(description);
    return counts ? KeySource::powerButton : KeySource::none;
}

std::optional<std::uint32_t> primaryUsagePage(std::string_view reportDescriptor) {
    // An item is a byte of tag, type and size, and 0, 1, 2 or 4 bytes of data, the lowest first.
    constexpr unsigned sizeMask = 0x03;
    constexpr unsigned longItem = 0xFE;  // its size is in the next byte, before one for its tag
    constexpr unsigned usagePageTag = 0x04;
    constexpr unsigned usageTag = 0x08;  // with a page of its own when it is four bytes long
    constexpr unsigned collectionTag = 0xA0;
    const auto byteAt = [reportDescriptor](std::size_t place) -> std::uint32_t {
        return place < reportDescriptor.size() ? static_cast<unsigned char>(reportDescriptor[place])
                                               : 0;
    };
    std::uint32_t page = 0;
    std::optional<std::uint32_t> pageOfUsage;  // the first one is that of the collection
    bool hasUsage = false;
    for (std::size_t place = 0; place < reportDescriptor.size();) {
        const unsigned prefix = byteAt(place);
        if (prefix == longItem) {
            place += 3 + byteAt(place + 1);
            continue;
        }
        const std::size_t size = (prefix & sizeMask) == 3 ? 4 : prefix & sizeMask;
        std::uint32_t value = 0;
        for (std::size_t index = size; index > 0; --index) {
            value = value << 8U | byteAt(place + index);
        }
        const unsigned tag = prefix & ~sizeMask;
        if (tag == usagePageTag) {
            page = value;
        } else if (tag == usageTag && !hasUsage) {
            hasUsage = true;
            pageOfUsage = size == 4 ? std::optional(value >> 16U) : std::nullopt;
        } else if (tag == collectionTag) {
            return pageOfUsage.value_or(page);
        }
        place += 1 + size;
    }
    return std::nullopt;
}

}  // namespace corvane
