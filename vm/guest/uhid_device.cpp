// A genuine HID device, for as long as this runs: the kernel's own HID and input layers make key
// events of its reports, as they do for a device on a USB port.
//
//   uhid-device KIND [--opened-by PROGRAM] [WORD...]
//
// KIND is consumer-control, keyboard, media-keyboard or system-control. The WORDs are done in their
// order:
//
//   press KEY    KEY goes down: "power", "menu" or the number of a usage of the kind's page
//   release      no key is down any more
//   hold         nothing more is done; the device stays until this program is killed
//
// Without WORDs, the lines of standard input are such words ("press power"), and its end is the
// end of the device. After each press or release a line on standard output tells what a reader of
// the device sees of it: "scan 0xc0030 key 116 value 1", or "nothing". The first line of all,
// "ready /dev/input/eventN", comes when the kernel is done with the device and, with --opened-by, a
// process of that name (as in /proc/PID/comm) has it open.
//
// A reader loses what it has not read by the end of the device: hold it where that matters.
//
// Exit status: 0 when all is done, 1 when something fails, with a line on standard error, 2 for a
// word that is none. Needs root and the modules uhid, hid-generic and evdev.
#include <fcntl.h>
#include <linux/input.h>
#include <linux/netlink.h>
#include <linux/uhid.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// How long the kernel, or the program that is to open the device, may take.
constexpr int hangLimit = 60000;  // milliseconds

[[noreturn]] void fail(const std::string& what) {
    std::perror(what.c_str());
    std::exit(1);
}

[[noreturn]] void failUsage() {
    std::fputs(
        "usage: uhid-device consumer-control|keyboard|media-keyboard|system-control [--opened-by "
        "PROGRAM]"
        " [press power|menu|USAGE] [release] [hold]\n",
        stderr);
    std::exit(2);
}

/// A device with one field, which holds the one key that is down. The report descriptors are made
/// of the items of Device Class Definition for HID 1.11, section 6.2.2; usages are those of the HID
/// Usage Tables.
struct Kind {
    std::string_view name;
    unsigned noUsage;  ///< what a report counts usages from; itself it stands for no key
    unsigned lastUsage;
    unsigned powerUsage;
    unsigned menuUsage;  ///< 0 for none
    std::size_t reportSize;
    std::vector<unsigned char> descriptor;
};

std::vector<Kind> allKinds() {
    return {
        // Consumer page, Consumer Control: an array of one usage of 16 bits.
        {"consumer-control", 0, 0x3FF, 0x30, 0x40, 2, {0x05, 0x0C, 0x09, 0x01, 0xA1, 0x01,
                                                       0x15, 0x00, 0x26, 0xFF, 0x03, 0x19,
                                                       0x00, 0x2A, 0xFF, 0x03, 0x75, 0x10,
                                                       0x95, 0x01, 0x81, 0x00, 0xC0}},
        // Generic Desktop page, Keyboard: an array of one usage of the Keyboard page.
        {"keyboard", 0, 0xFF, 0x66, 0x76, 1, {0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07,
                                              0x15, 0x00, 0x26, 0xFF, 0x00, 0x19, 0x00, 0x29,
                                              0xFF, 0x75, 0x08, 0x95, 0x01, 0x81, 0x00, 0xC0}},
        // The first of these two collections says what the device is: a keyboard.
        {"media-keyboard", 0, 0x3FF, 0x30, 0x40, 2, {0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0xC0, 0x05,
                                                     0x0C, 0x09, 0x01, 0xA1, 0x01, 0x15, 0x00, 0x26,
                                                     0xFF, 0x03, 0x19, 0x00, 0x2A, 0xFF, 0x03, 0x75,
                                                     0x10, 0x95, 0x01, 0x81, 0x00, 0xC0}},
        // Generic Desktop page, System Control: System Power Down, Sleep and Wake Up.
        {"system-control", 0x80, 0x83, 0x81, 0, 1, {0x05, 0x01, 0x09, 0x80, 0xA1, 0x01, 0x15,
                                                    0x01, 0x25, 0x03, 0x19, 0x81, 0x29, 0x83,
                                                    0x75, 0x08, 0x95, 0x01, 0x81, 0x40, 0xC0}},
    };
}

unsigned usageOf(const Kind& kind, const std::string& key) {
    char* end = nullptr;
    const unsigned usage = key == "power" ? kind.powerUsage
                           : key == "menu"
                               ? kind.menuUsage
                               : static_cast<unsigned>(std::strtoul(key.c_str(), &end, 0));
    if ((end != nullptr && *end != '\0') || usage <= kind.noUsage || usage > kind.lastUsage) {
        failUsage();
    }
    return usage;
}

void awaitInput(int descriptor, const char* what) {
    pollfd waited{descriptor, POLLIN, 0};
    if (::poll(&waited, 1, hangLimit) != 1) {
        errno = ETIMEDOUT;
        fail(what);
    }
}

/// What the kernel tells of its devices. Heard from the making of this object on.
class DeviceMessages {
 public:
    DeviceMessages() {
        constexpr unsigned kernelsGroup = 1;
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = kernelsGroup;
        sockaddr anyAddress{};
        std::memcpy(&anyAddress, &address, sizeof address);
        if (socket_ < 0 || ::bind(socket_, &anyAddress, sizeof address) != 0) {
            fail("uevents");
        }
    }
    ~DeviceMessages() { ::close(socket_); }
    DeviceMessages(const DeviceMessages&) = delete;
    DeviceMessages& operator=(const DeviceMessages&) = delete;

    /// The lines of the next one: "ACTION@PATH", then "NAME=VALUE".
    std::vector<std::string> next() {
        std::array<char, 8192> buffer;
        awaitInput(socket_, "a message of the new device");
        const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
            fail("uevents");
        }
        std::vector<std::string> lines;
        std::string_view rest(buffer.data(), static_cast<std::size_t>(count));
        while (!rest.empty()) {
            const std::string_view line = rest.substr(0, rest.find('\0'));
            lines.emplace_back(line);
            rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        }
        return lines;
    }

 private:
    int socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
};

/// The processes that have `path` open, by the name of their program.
bool isOpenIn(const std::string& program, const std::string& path) {
    std::error_code ignored;
    for (const auto& process : fs::directory_iterator("/proc", ignored)) {
        std::string name;
        std::getline(std::ifstream(process.path() / "comm"), name);
        if (name != program) {
            continue;
        }
        for (const auto& entry : fs::directory_iterator(process.path() / "fd", ignored)) {
            if (fs::read_symlink(entry.path(), ignored) == path) {
                return true;
            }
        }
    }
    return false;
}

/// The kernel tells of an opening a moment before the opener's table of descriptors shows it: so
/// the table is looked at again after a moment as well.
void awaitOpening(const std::string& program, const std::string& path) {
    constexpr int moment = 20;  // milliseconds
    const int openings = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (openings < 0 || ::inotify_add_watch(openings, path.c_str(), IN_OPEN) < 0) {
        fail(path);
    }
    for (int left = hangLimit / moment; !isOpenIn(program, path); --left) {
        if (left == 0) {
            errno = ETIMEDOUT;
            fail(program + " does not open the device");
        }
        pollfd waited{openings, POLLIN, 0};
        ::poll(&waited, 1, moment);
        std::array<char, 4096> told;
        if (::read(openings, told.data(), told.size()) < 0 && errno != EAGAIN) {
            fail(path);
        }
    }
    ::close(openings);
}

class Device {
 public:
    explicit Device(const Kind& kind) : kind_(kind) {
        const std::string name = "0003:1209:" + productId();
        DeviceMessages messages;
        create();
        std::string node;
        // Reports that come before the end of the kernel's own preparation are thrown away.
        for (bool ready = false; !ready;) {
            const std::vector<std::string> message = messages.next();
            const bool isOurs = message.front().find("/uhid/" + name) != std::string::npos;
            if (isOurs && message.front().starts_with("add@")) {
                node = eventNodeOf(message, node);
            }
            ready = isOurs && message.front().starts_with("bind@");
        }
        path_ = "/dev/" + node;
        events_ = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (events_ < 0) {
            fail(path_);
        }
    }
    ~Device() {
        ::close(events_);
        ::close(control_);
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }

    /// Reports that one usage is active, or none (`Kind::noUsage`), and prints what comes of it.
    void report(unsigned usage) {
        const unsigned value = usage - kind_.noUsage;
        uhid_event event{};
        event.type = UHID_INPUT2;
        event.u.input2.size = static_cast<__u16>(kind_.reportSize);
        event.u.input2.data[0] = static_cast<__u8>(value & 0xFFU);
        event.u.input2.data[1] = static_cast<__u8>(value >> 8U);
        write(event);
        printEvents();
    }

 private:
    /// Tells devices of several such programs apart.
    static std::string productId() {
        std::array<char, 8> text{};
        std::snprintf(text.data(), text.size(), "%04X",
                      static_cast<unsigned>(::getpid()) & 0xFFFFU);
        return text.data();
    }

    static std::string eventNodeOf(const std::vector<std::string>& message, std::string otherwise) {
        constexpr std::string_view mark = "DEVNAME=";
        for (const std::string& line : message) {
            if (line.starts_with("DEVNAME=input/event")) {
                return line.substr(mark.size());
            }
        }
        return otherwise;
    }

    void write(const uhid_event& event) const {
        if (::write(control_, &event, sizeof event) != static_cast<ssize_t>(sizeof event)) {
            fail("/dev/uhid");
        }
    }

    void create() const {
        if (control_ < 0) {
            fail("/dev/uhid");
        }
        uhid_event event{};
        event.type = UHID_CREATE2;
        uhid_create2_req& request = event.u.create2;
        const std::string name = "Test " + std::string(kind_.name);
        std::memcpy(request.name, name.data(), name.size());
        request.bus = BUS_USB;
        request.vendor = 0x1209;
        request.product = static_cast<__u32>(::getpid()) & 0xFFFFU;
        request.rd_size = static_cast<__u16>(kind_.descriptor.size());
        std::memcpy(request.rd_data, kind_.descriptor.data(), kind_.descriptor.size());
        write(event);
    }

    /// All that there will be is there: the kernel makes the events while it takes the report.
    void printEvents() const {
        std::array<input_event, 64> records;
        const ssize_t count = ::read(events_, records.data(), sizeof records);
        const std::size_t size =
            count < 0 ? 0 : static_cast<std::size_t>(count) / sizeof records[0];
        for (const input_event& record : std::span(records).first(size)) {
            if (record.type == EV_MSC && record.code == MSC_SCAN) {
                std::printf("scan 0x%x ", static_cast<unsigned>(record.value));
            } else if (record.type == EV_KEY) {
                std::printf("key %u value %d\n", record.code, record.value);
            }
        }
        std::printf("%s", size == 0 ? "nothing\n" : "");
        std::fflush(stdout);
    }

    const Kind& kind_;
    int control_ = ::open("/dev/uhid", O_RDWR | O_CLOEXEC);
    int events_ = -1;
    std::string path_;
};

/// Does one action, as it stands in `words`. Returns how many of them it took.
std::size_t act(Device& device, const Kind& kind, std::span<const std::string> words) {
    if (words[0] == "press" && words.size() > 1) {
        device.report(usageOf(kind, words[1]));
        return 2;
    }
    if (words[0] == "release") {
        device.report(kind.noUsage);
    } else if (words[0] == "hold") {
        ::pause();
    } else {
        failUsage();
    }
    return 1;
}

std::vector<std::string> split(const std::string& line) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos) {
        return {line};
    }
    return {line.substr(0, blank), line.substr(blank + 1)};
}

}  // namespace

int main(int count, char** arguments) {
    std::vector<std::string> words(arguments + 1, arguments + count);
    const std::vector<Kind> kinds = allKinds();
    const auto kind = std::find_if(kinds.begin(), kinds.end(), [&words](const Kind& candidate) {
        return !words.empty() && candidate.name == words.front();
    });
    if (kind == kinds.end()) {
        failUsage();
    }
    std::string program;
    std::size_t done = 1;
    if (words.size() > 2 && words[1] == "--opened-by") {
        program = words[2];
        done = 3;
    }
    Device device(*kind);
    if (!program.empty()) {
        awaitOpening(program, device.path());
    }
    std::printf("ready %s\n", device.path().c_str());
    std::fflush(stdout);
    if (done == words.size()) {
        for (std::string line; std::getline(std::cin, line);) {
            act(device, *kind, split(line));
        }
    }
    while (done < words.size()) {
        done += act(device, *kind, std::span(words).subspan(done));
    }
    return 0;
}
