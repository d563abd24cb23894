#include "tests/vm/support/virtual_machine.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <system_error>

#include "tests/vm/support/host_program.h"

namespace corvane::vm {
namespace {

constexpr Limit startLimit = std::chrono::minutes(4);

std::filesystem::path makeDirectory() {
    std::string name = "/tmp/corvane-vm.XXXXXX";  // short: socket paths end at 107 bytes
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return name;
}

std::string kernelCommandLine(const MachineOptions& options) {
    std::string line = "console=ttyS0 quiet ";
    line += options.disk.empty() ? "panic=-1" : "root=/dev/vda rw";
    if (options.console) {
        line += " corvane.channel=hvc0";
    }
    if (options.vsockLoopback) {
        line += " corvane.vsock=loopback";
    }
    if (!options.startAgent) {
        line += " corvane.agent=stopped";
    }
    for (const std::string& word : options.kernelWords) {
        line += ' ' + word;
    }
    return line;
}

/// A socket chardev on a listener that is made here and inherited: it can be connected to at once,
/// with no wait for QEMU to make it.
std::string socketDevice(const std::string& id, const Descriptor& listener) {
    return "socket,id=" + id + ",server=on,wait=off,fd=" + std::to_string(listener.borrow());
}

}  // namespace

VirtualMachine::VirtualMachine(const std::filesystem::path& imageDirectory,
                               const MachineOptions& options)
    : directory_(makeDirectory()) {
    try {
        start(imageDirectory, options);
    } catch (...) {
        end();
        throw;
    }
}

VirtualMachine::~VirtualMachine() {
    end();
}

void VirtualMachine::start(const std::filesystem::path& imageDirectory,
                           const MachineOptions& options) {
    Descriptor channel = listenAt(channelPath());
    Descriptor control = listenAt(directory_ / "control");
    Descriptor monitor = listenAt(directory_ / "qmp");
    Descriptor bridge = listenAt(bridgePath());
    const std::string console = directory_ / "console.log";
    const std::ofstream created(console);
    log_ = std::make_unique<ConsoleLog>(console);

    std::vector<std::string> words = {
        "qemu-system-x86_64",
        "-machine",
        "q35",
        "-accel",
        "tcg",
        "-cpu",
        "max",
        "-m",
        "512",
        "-nodefaults",
        "-no-user-config",
        "-display",
        "none",
        "-kernel",
        imageDirectory / "vmlinux",
        "-initrd",
        imageDirectory / "initrd.cpio",
        "-append",
        kernelCommandLine(options),
        "-chardev",
        "file,id=console,append=on,path=" + console,
        "-serial",
        "chardev:console",
        "-chardev",
        socketDevice("control", control),
        "-serial",
        "chardev:control",
        "-chardev",
        socketDevice("monitor", monitor),
        "-mon",
        "chardev=monitor,mode=control",
        "-device",
        "virtio-serial-pci",
        "-chardev",
        socketDevice("agent", channel),
        "-device",
        options.console ? "virtconsole,chardev=agent"
                        : "virtserialport,chardev=agent,name=org.qemu.guest_agent.0"};
    if (options.vsockLoopback) {
        words.insert(words.end(), {"-chardev", socketDevice("bridge", bridge), "-device",
                                   "virtserialport,chardev=bridge,name=org.corvane.bridge"});
    }
    if (options.disk.empty()) {
        words.emplace_back("-no-reboot");
    } else {
        // Nobody but the next guest of this test reads the disk: it need not outlive a power cut.
        words.insert(words.end(),
                     {"-smp", "2", "-drive",
                      "if=virtio,format=raw,cache=unsafe,file=" + options.disk.string()});
    }
    for (const std::string& entry : options.firmwareEntries) {
        words.insert(words.end(), {"-fw_cfg", entry});
    }

    process_ = startProgram(
        {.words = words,
         .outputPath = directory_ / "qemu.log",
         .inherited = {channel.borrow(), control.borrow(), monitor.borrow(), bridge.borrow()},
         .endWithParent = options.endWithParent});
    // QEMU alone holds the listeners now: its end is the end of every connection.
    channel.close();
    control.close();
    monitor.close();
    bridge.close();
    shell_ = std::make_unique<GuestShell>(directory_ / "control");
    try {
        shell_->awaitReady(startLimit);
        qmp_ = std::make_unique<QmpClient>(directory_ / "qmp");
    } catch (const std::exception& error) {
        std::ifstream messages(directory_ / "qemu.log");
        const std::string said{std::istreambuf_iterator<char>(messages), {}};
        throw std::runtime_error(std::string("the guest does not start: ") + error.what() + "\n" +
                                 said + log_->since(0));
    }
}

std::size_t VirtualMachine::settleLog() {
    const std::string marker = "settled " + std::to_string(++markers_) + ".";
    const std::size_t before = log_->end();
    shell_->check("logger -t test '" + marker + "'");
    log_->await(marker, before);
    return log_->end();
}

void VirtualMachine::powerOff() {
    try {
        shell_->check("poweroff -f &");
    } catch (const EndOfStream&) {
        // The guest was gone before its answer was out.
    }
    awaitEnd();
}

void VirtualMachine::awaitEnd(Limit limit) {
    if (!awaitProgram(process_, limit)) {
        throw HangError("QEMU does not end; the guest's log:\n" + log_->since(0));
    }
    process_ = -1;
}

void VirtualMachine::awaitRestart() {
    shell_->awaitReady(startLimit);
}

void VirtualMachine::leaveRunning() {
    leftRunning_ = true;
    process_ = -1;
}

void VirtualMachine::end() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
    if (!leftRunning_) {
        std::filesystem::remove_all(directory_);
    }
}

}  // namespace corvane::vm
