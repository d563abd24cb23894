#include "tests/vm/faults/fault_rules.h"

#include <algorithm>
#include <cstring>
#include <fnmatch.h>
#include <vector>

#include "tests/vm/faults/fault_bench.h"

namespace corvane::vm {
namespace {

constexpr std::string_view connectionHasEnded = "The connection has ended.";
constexpr std::string_view otherEnvironment = "Invalid guest agent environment.";
constexpr std::string_view noButton = "Unable to register for HID power button events.";
constexpr std::string_view opening = "@(start-up|reconnect)";

const std::vector<FaultRule> rules = {
    // What every request does is tried with guest-ping, and what opens the channel where it is
    // opened.
    {"!(start-up|ping|reconnect)", "log *", "elsewhere"},
    {"!(start-up|ping|reconnect)", "main * /dev/vport#p#", "elsewhere"},
    {"!(start-up|ping|reconnect)", "main access *", "elsewhere"},

    {"absence", "!(main epoll_wait *)", "elsewhere"},
    {.scenarios = "absence", .call = "main epoll_wait *", .last = 1},
    // How many follow depends on how the notices of the hosts come.
    {.scenarios = "absence", .call = "main epoll_wait *", .mayBeLeftOut = true},
    // Whether it comes to that depends on how soon the host is there.
    {opening, "main epoll_wait *", "elsewhere"},

    // The log does without what it cannot have: an entry may be lost, nothing else.
    {.scenarios = "*", .call = "log *", .mayBeLeftOut = true},
    {"*", "main access *"},
    {.scenarios = "*", .call = "main futex wait", .mayBeLeftOut = true},

    // Memory: the C library has other ways to it, or does without giving it back.
    {.scenarios = "*", .call = "main @(brk|madvise|munmap)", .mayBeLeftOut = true},

    // The channel at work. A host that has come again begins with a request whose answer it needs.
    {"reconnect", "main write /dev/vport#p#", "elsewhere", "EIO"},
    {"reconnect", "main read /dev/vport#p#", "elsewhere", "EIO", 2},
    {.scenarios = "@(start-up|ping)",
     .call = "main write /dev/vport#p#",
     .outcome = "no answer",
     .errors = "EIO"},
    {"@(start-up|ping|reconnect)", "main write /dev/vport#p#"},
    {.scenarios = "@(start-up|ping)",
     .call = "main read /dev/vport#p#",
     .outcome = connectionHasEnded,
     .errors = "EIO"},
    {"@(start-up|ping|reconnect)", "main read /dev/vport#p#"},
    // How many of these it takes depends on how long the host is silent.
    {.scenarios = "@(start-up|ping|reconnect)",
     .call = "main poll /dev/vport#p#",
     .mayBeLeftOut = true},

    // Opening the channel. A port that nobody publishes: the serial device is opened.
    {opening, "main @(openat|read|close) /proc/cmdline"},
    {opening, "main newfstatat /sys/firmware/*"},
    // The device.
    {opening, "main openat /dev/tty.org.qemu.guest_agent.#", "done", "EINTR"},
    {opening, "main openat /dev/tty.org.qemu.guest_agent.#", "exit 1"},
    {opening, "main @(newfstatat|epoll_*) /dev/vport#p#", "exit 1"},
    {opening, "main epoll_create1", "exit 1"},
    // What is not known to be a port is asked for the exclusive use that only a tty has.
    {.scenarios = opening,
     .call = "main @(readlink|newfstatat) /sys/dev/char/#:#/subsystem",
     .outcome = "exit 1",
     .log = "Error exclusively acquiring serial port: (Inappropriate ioctl for device)"},
    {.scenarios = opening,
     .call = "main ioctl TIOCEXCL /dev/vport#p#",
     .outcome = "exit 1",
     .log = "Error exclusively acquiring serial port: (TEXT)"},
    // Whose device it is. The agent's port is the first in the list of the ports.
    {opening, "main close /sys/*"},
    {.scenarios = opening,
     .call = "main @(openat|newfstatat|getdents64) /sys/class",
     .outcome = "exit 1",
     .log = otherEnvironment},
    // A port that was kept is taken again, though it could not be looked at.
    {"reconnect", "main newfstatat /dev/tty.org.qemu.guest_agent.#", "done", "any", 1, 1},
    {.scenarios = opening,
     .call = "main newfstatat /dev/tty.org.qemu.guest_agent.#",
     .outcome = "exit 1",
     .log = otherEnvironment},
    // The list of the ports is made twice, at first for consoles that stand without a parent. The
    // last look at a folder tells that there is no more.
    {opening, "main @(openat|newfstatat) /sys/class/virtio-ports", "done", "any", 1, 1},
    {opening, "main getdents64 /sys/class/virtio-ports", "done", "any", 1, 2},
    {opening, "main getdents64 /sys/class/virtio-ports", "done", "any", 4, 4},
    {.scenarios = opening,
     .call = "main @(openat|newfstatat|getdents64) /sys/class/virtio-ports",
     .outcome = "exit 1",
     .log = otherEnvironment},
    // The number of the device, and its driver.
    {opening, "main openat /sys/class/virtio-ports/*/dev", "done", "EINTR"},
    {.scenarios = opening,
     .call = "main openat /sys/class/virtio-ports/*/dev",
     .outcome = "exit 1",
     .last = 1,
     .log = otherEnvironment},
    {opening, "main read /sys/devices/pci*/dev", "done", "EINTR short"},
    {.scenarios = opening,
     .call = "main read /sys/devices/pci*/dev",
     .outcome = "exit 1",
     .last = 2,
     .log = otherEnvironment},
    {.scenarios = opening,
     .call = "main @(newfstatat|readlink) /sys/devices/pci*/virtio#/driver",
     .outcome = "exit 1",
     .last = 1,
     .log = otherEnvironment},
    {opening, "main @(newfstatat|readlink) /sys/devices/*/driver"},
    // The links on the way there.
    {.scenarios = opening,
     .call = "main readlink @(/sys|/sys/devices|/sys/devices/pci*/virtio#)",
     .outcome = "exit 1",
     .last = 2,
     .log = otherEnvironment},
    {.scenarios = opening,
     .call = "main readlink @(/sys/class|/sys/class/virtio-ports*|/sys/devices/pci*)",
     .outcome = "exit 1",
     .last = 1,
     .log = otherEnvironment},
    // What other devices belong to does not matter.
    {opening, "main @(openat|newfstatat|getdents64) /sys/class/tty"},
    {.scenarios = opening, .call = "main @(openat|read|readlink) /sys*", .sampled = true},

    // The threads. Without the one of the log the next entry starts it. That of the power button
    // is given up; that of the reaper, too, without a word.
    {"start-up", "main @(clone3|mmap|mprotect)", "done", "any", 1, 1},
    {.scenarios = "start-up",
     .call = "main @(clone3|mmap|mprotect)",
     .first = 2,
     .last = 2,
     .log = noButton,
     .descriptors = -2},
    {"start-up", "main @(clone3|mmap|mprotect)", "done", "any", 3},
    {"start-up", "main getrandom"},
    {"start-up", "reaper *"},

    // The power button. What there are no means for is tried again; what fails otherwise is not
    // heard.
    {.scenarios = "start-up", .call = "button inotify_init1", .log = noButton, .descriptors = -2},
    {"start-up", "button inotify_add_watch *"},
    {"start-up", "button close *"},
    {"start-up", "button @(mmap|mprotect|munmap)"},
    {"start-up", "button poll *", "done", "EINTR"},
    {.scenarios = "start-up", .call = "button poll *", .log = noButton, .descriptors = -2},
    // The button is the first of the devices.
    {.scenarios = "start-up",
     .call =
         "button @(openat /dev/input*|@(newfstatat|getdents64) /dev/input|@(newfstatat|readlink) "
         "/sys/dev/char/*)",
     .errors = "EIO",
     .last = 1,
     .descriptors = -1},
    {.scenarios = "start-up",
     .call = "button @(newfstatat|ioctl #) /dev/input/event#",
     .errors = "EIO",
     .last = 3,
     .descriptors = -1},
    {"start-up", "button @(openat|getdents64|newfstatat|ioctl) *"},
    {"start-up", "button readlink *"},

    // Programs: the agent's side.
    {"exec capture", "main pipe2", "unable to allocate stdin pipe", "any", 1, 1},
    {"exec*", "main pipe2", "failed to fork child: TEXT"},
    {"exec terminal", "main clone process", "failed to fork pty child: TEXT", "any", 1, 1},
    // The files' descriptors stay open: who destroys the record does not close them.
    {.scenarios = "exec capture",
     .call = "main clone process",
     .outcome = "failed to fork child: TEXT",
     .descriptors = 2},
    {"exec*", "main clone process", "failed to fork child: TEXT"},
    {"exec*", "main poll pipe"},
    {"exec*", "main close *"},
    {"exec*", "reaper rt_sigtimedwait"},
    {"exec", "main openat* /dev/null", "failed to open /dev/null: TEXT"},
    {"exec capture", "main mkdir /run/corvane", "unable to initialize stdout and stderr paths"},
    {"exec capture", "main newfstatat /run/corvane",
     "unable to initialize stdout and stderr paths"},
    {"exec capture", "main unlink /run/corvane/stdout_#",
     "failed to open /run/corvane/stdout_#: TEXT", "any", 1, 1},
    {"exec capture", "main unlink /run/corvane/stderr_#",
     "failed to open /run/corvane/stderr_#: TEXT", "any", 1, 1},
    {"exec capture", "main unlink *"},
    {"exec capture", "main openat-new /run/corvane/stdout_#",
     "failed to open /run/corvane/stdout_#: TEXT"},
    {"exec capture", "main openat-new /run/corvane/stderr_#",
     "failed to open /run/corvane/stderr_#: TEXT"},
    {"exec capture", "main newfstatat /run/corvane/stdout_#", "out-data \"\""},
    {"exec capture", "main newfstatat /run/corvane/stderr_#", "err-data \"\""},
    {"exec capture", "main pread64 /run/corvane/stdout_#", "out-data \"\"", "EIO"},
    {"exec capture", "main pread64 /run/corvane/stderr_#", "err-data \"\"", "EIO"},
    {"exec capture", "main pread64 *"},
    // The program has closed its input, as far as the agent can tell.
    {"exec capture", "main write pipe", "out-data \"\"", "EPIPE"},
    {"exec capture", "main write pipe"},
    // The accounts are the C library's matter, which does not always tell a service that fails from
    // one that knows nobody.
    {"exec paths", "main @(openat|read|newfstatat) @(/|/etc/*)",
     "done | failed to find user 0: TEXT | failed to find group 0: TEXT | user 0 does not exist | "
     "group 0 does not exist"},
    {"exec paths", "main @(socket|connect) *"},
    {"exec paths", "main newfstatat /run/fault.in", "mirel-stdin does not exist"},
    {"exec paths", "main newfstatat /run/fault.out", "mirel-stdout does not exist"},
    {"exec paths", "main newfstatat /run/fault.err", "mirel-stderr does not exist"},
    {"exec paths", "main newfstatat /tmp", "mirel-working-directory /tmp does not exist"},
    {"exec paths", "main openat /run/fault.in", "failed to open /run/fault.in: TEXT"},
    {"exec paths", "main openat-new /run/fault.out", "failed to open /run/fault.out: TEXT"},
    {"exec paths", "main openat-new /run/fault.err", "failed to open /run/fault.err: TEXT"},
    {"exec @(vsock|terminal)", "main socket AF_VSOCK", "failed to create vsock socket: TEXT"},
    {"exec @(vsock|terminal)", "main poll socket", "done", "EINTR"},
    {"exec @(vsock|terminal)", "main @(connect|getsockopt|poll) socket",
     "failed to to connect to 'vsock://2:#': TEXT"},
    {"exec terminal", "main openat /dev/ptmx", "done", "EINTR"},
    {"exec terminal", "main openat /dev/ptmx", "failed to openpty: TEXT"},
    {"exec terminal", "main ioctl TIOCSPTLCK *", "failed to openpty: TEXT"},
    {"exec terminal", "main ioctl *", "done", "EINTR"},
    {"exec terminal", "main ioctl *", "failed to openpty: TEXT"},

    // Programs: the child on its way.
    {"exec*", "child close_range"},
    {"exec*", "child ioctl TIOCSCTTY *"},
    // The terminal hangs up, and the relay with it.
    {"exec terminal", "child execve *", "vsock connection ended"},
    {"exec*", "child @(chdir|execve|setuid)*", "exitcode 255"},

    // The relay of a terminal: when it ends, so does the connection, and the program's terminal,
    // which a program that has not ended yet takes for a hang-up.
    {"exec terminal", "relay close*"},
    {"exec terminal", "relay mmap", "vsock connection ended"},
    {"exec terminal", "relay poll pipe"},
    // How many of these it takes depends on what comes together.
    {.scenarios = "exec terminal", .call = "relay poll *", .errors = "EINTR", .mayBeLeftOut = true},
    {.scenarios = "exec terminal",
     .call = "relay @(read|write) *",
     .errors = "EAGAIN EINTR short",
     .mayBeLeftOut = true},
    {.scenarios = "exec terminal",
     .call = "relay @(poll|read|write) *",
     .outcome = "vsock connection ended | signal 1 | done",
     .mayBeLeftOut = true},

    // Files.
    {"@(file|transfer*)", "main openat*", "invalid path or mode"},
    {"file", "main newfstatat *"},
    {"file", "main write *", "done", "short"},
    {"file", "main write *", "fflush error ERRNO"},
    {"file", "main read *", "done", "short"},
    {"file", "main read *", "fread error ERRNO"},
    {"@(file|transfer*)", "main close /run/fault.file", "fclose error ERRNO"},
    {"transfer*", "main socket AF_VSOCK", "no vsock transport available", "ENODEV"},
    {"transfer*", "main socket AF_VSOCK", "failed to create vsock socket with error: TEXT"},
    {"transfer*", "main getsockopt socket", "failed to get socket buffer size with error: TEXT",
     "any", 1, 1},
    {"transfer*", "main poll socket", "done", "EINTR"},
    {"transfer*", "main @(connect|getsockopt|poll) socket",
     "failed to connect to 2:# with error: TEXT"},
    {"transfer*", "main close socket", "failed to close socket with error: TEXT"},
    // A source that fails counts as one that ends.
    {"transfer*", "main read *", "done", "short"},
    {"transfer*", "main read *", "count 0", "any", 1, 1},
    {"transfer*", "main read *"},
    {"transfer*", "main write *", "write error: Success", "short"},
    {"transfer*", "main write *", "write error: TEXT"},

    // The machine.
    {"interfaces", "main close *"},
    {"interfaces", "main @(sendto|recvmsg) *", "done", "EINTR"},
    {"interfaces", "main @(socket|bind|getsockname|sendto|recvmsg) *", "getifaddrs error ERRNO"},
    {"clock", "main clock_settime*", "failed to set time"},
    {"info", "main close *"},
    // What cannot be made at the moment is not listed.
    {"info", "main socket AF_VSOCK", "17 commands"},
    {"info", "main faccessat2 *"},

    // The vsock channel. What is not its own is tried elsewhere. Without it the agent serves at the
    // serial device: with an event queue more, and with the socket whose connecting has failed.
    {"vsock *", "!(main @(* socket|socket *|* /proc/cmdline|* /sys/firmware/*))", "elsewhere"},
    {"vsock reconnect", "main * /proc/cmdline", "elsewhere"},
    {"vsock node", "main !(* /proc/cmdline|* /sys/firmware/*)", "elsewhere"},
    // The port. A source that cannot be read gives none, and the next one is asked.
    {"vsock start-up", "main @(openat|read) /proc/cmdline", "done", "EINTR short"},
    {.scenarios = "vsock start-up",
     .call = "main @(openat|read) /proc/cmdline",
     .outcome = serialDevice,
     .log = "Cannot find entry /product on this system",
     .descriptors = 1},
    {"vsock *", "main @(openat|read|close) /proc/cmdline"},
    {"vsock node", "main newfstatat /sys/firmware/devicetree*"},
    {.scenarios = "vsock node",
     .call = "main newfstatat /sys/firmware/qemu_fw_cfg/by_name",
     .outcome = serialDevice,
     .log = "Unable to reach the device registry: TEXT",
     .descriptors = 1},
    {.scenarios = "vsock node",
     .call = "main newfstatat /sys/firmware/qemu_fw_cfg/by_name/opt/mirel/options",
     .outcome = serialDevice,
     .log = "Cannot find entry /options on this system",
     .descriptors = 1},
    {.scenarios = "vsock node",
     .call = "main newfstatat /sys/firmware/*/mirel-guest-agent-port",
     .outcome = serialDevice,
     .log = "Unable to find key mirel-guest-agent-port in /options",
     .descriptors = 1},
    {"vsock node", "main @(openat|read) /sys/firmware/*/raw", "done", "EINTR short"},
    {.scenarios = "vsock node",
     .call = "main @(openat|read) /sys/firmware/*/raw",
     .outcome = serialDevice,
     .log = "Expecting data for mirel-guest-agent-port in /options",
     .descriptors = 1},
    {"vsock node", "main close /sys/firmware/*"},
    // The connection. A machine without vsock is left at peace.
    {.scenarios = "vsock @(start-up|reconnect)",
     .call = "main socket AF_VSOCK",
     .outcome = serialDevice,
     .errors = "ENODEV",
     .unsaid = "vsock",
     .descriptors = 1},
    {.scenarios = "vsock @(start-up|reconnect)",
     .call = "main socket AF_VSOCK",
     .outcome = serialDevice,
     .log = "Error creating vsock socket: TEXT.",
     .descriptors = 1},
    {.scenarios = "vsock @(start-up|reconnect)",
     .call = "main @(connect|getsockopt) socket",
     .outcome = serialDevice,
     .log = "Error connecting to vsock peer at address cid 2 and port 1024: TEXT.",
     .descriptors = 2},
    {.scenarios = "vsock start-up",
     .call = "main poll socket",
     .errors = "EINTR",
     .mayBeLeftOut = true},
    {.scenarios = "vsock start-up",
     .call = "main poll socket",
     .outcome = serialDevice,
     .last = 1,
     .log = "Error connecting to vsock peer at address cid 2 and port 1024: TEXT.",
     .descriptors = 2},
    // Whether the agent waits for its old host anew before that one leaves is a matter of time.
    {"vsock reconnect", "main poll socket", "elsewhere"},
    {"vsock reconnect", "main @(close|read) socket"},
    {"vsock start-up", "main @(read|writev) socket", "elsewhere"},
    // At work. A wait that fails is not the channel's end. An answer is written once. A channel
    // that cannot be read has ended, and the host that listened for one connection is not found.
    {.scenarios = "vsock @(start-up|ping)", .call = "main poll socket", .mayBeLeftOut = true},
    {"vsock ping", "main read socket", "done", "EAGAIN EINTR short"},
    {.scenarios = "vsock ping",
     .call = "main read socket",
     .outcome = serialDevice,
     .log = connectionHasEnded,
     .descriptors = 2},
    {"vsock ping", "main writev socket", "done", "EINTR"},
    {"vsock ping", "main writev socket", cutAnswer, "short"},
    {"vsock ping", "main writev socket", noAnswer},
};

bool fits(std::string_view pattern, const std::string& text) {
    return ::fnmatch(std::string(pattern).c_str(), text.c_str(), FNM_EXTMATCH) == 0;
}

bool hasWord(std::string_view words, const std::string& word) {
    return (' ' + std::string(words) + ' ').find(' ' + word + ' ') != std::string::npos;
}

void replaceWord(std::string& text, const std::string& word, const std::string& replacement) {
    for (auto place = text.find(word); place != std::string::npos;
         place = text.find(word, place + replacement.size())) {
        text.replace(place, word.size(), replacement);
    }
}

}  // namespace

std::span<const FaultRule> faultRules() {
    return rules;
}

const FaultRule* findRule(const std::string& scenario, const std::string& call, unsigned occurrence,
                          const std::string& error) {
    const auto found = std::find_if(rules.begin(), rules.end(), [&](const FaultRule& rule) {
        return (rule.errors == "any" || hasWord(rule.errors, error)) && rule.first <= occurrence &&
               occurrence <= rule.last && fits(rule.call, call) && fits(rule.scenarios, scenario);
    });
    return found == rules.end() ? nullptr : &*found;
}

std::string ruleTable() {
    const auto cell = [](std::string_view text) {
        std::string made;
        for (const char byte : text) {
            made += byte == '|' ? "\\|" : std::string(1, byte);
        }
        return made + " | ";
    };
    std::string table =
        "| scenario | call | errors | comes out as | further |\n|---|---|---|---|---|\n";
    for (const FaultRule& rule : rules) {
        std::string which(rule.errors);
        if (rule.first != 1 || rule.last != ~0U) {
            which += ", of call " + std::to_string(rule.first);
            which += rule.last == ~0U ? " and later" : "";
        }
        std::string further(rule.log.empty() ? "" : "log: " + std::string(rule.log));
        if (!rule.unsaid.empty()) {
            further +=
                (further.empty() ? "" : "; ") + ("not in the log: " + std::string(rule.unsaid));
        }
        if (rule.descriptors != 0) {
            further += (further.empty() ? "" : "; ") + std::to_string(rule.descriptors) +
                       " descriptors, for good";
        }
        table += "| " + cell(rule.scenarios) + "`" + cell(std::string(rule.call) + "`") +
                 cell(which) + cell(rule.outcome) + cell(further);
        table.back() = '\n';
    }
    return table;
}

std::string filledIn(std::string_view text, int error) {
    std::string filled(text);
    replaceWord(filled, "TEXT", std::strerror(error));
    replaceWord(filled, "ERRNO", std::to_string(error));
    return filled;
}

}  // namespace corvane::vm
