#include "tests/vm/clients/client_guest.h"

#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/vm/support/host_program.h"

namespace corvane::vm {
namespace {

constexpr Limit startLimit = std::chrono::minutes(4);

}  // namespace

ClientGuest::ClientGuest(LibvirtDaemon& daemon, std::string name,
                         const std::filesystem::path& image)
    : daemon_(daemon), name_(std::move(name)), directory_(daemon.directory() / name_) {
    std::filesystem::create_directory(directory_);
    // The user that the daemon runs as need not be able to read the build and the cache.
    for (const char* file : {"vmlinux", "initrd.cpio"}) {
        std::filesystem::copy_file(image / file, directory_ / file);
    }
    const std::ofstream created(directory_ / "console.log");
    if (std::filesystem::exists(image / "disk.ext4")) {
        disk_.emplace(image / "disk.ext4");
        daemon_.giveAway(disk_->path().parent_path());
    }
    daemon_.giveAway(directory_);
    console_ = std::make_unique<ConsoleLog>(directory_ / "console.log");
}

std::string ClientGuest::description() const {
    const std::string top = directory_;
    const std::string disk = disk_ ? "<disk type='file' device='disk'>"
                                     "<driver name='qemu' type='raw' cache='unsafe'/>"
                                     "<source file='" +
                                         disk_->path().string() +
                                         "'/><target dev='vda' bus='virtio'/></disk>"
                                   : "";
    return "<domain type='qemu'><name>" + name_ +
           "</name>"
           "<memory unit='MiB'>512</memory><vcpu>2</vcpu>"
           "<os><type arch='x86_64' machine='q35'>hvm</type><kernel>" +
           top + "/vmlinux</kernel><initrd>" + top + "/initrd.cpio</initrd><cmdline>" +
           "console=ttyS0 quiet " + (disk_ ? "root=/dev/vda rw" : "panic=-1") +
           "</cmdline></os>"
           "<features><acpi/></features><cpu mode='maximum'/>"
           // Without these libvirt refuses to suspend it and does not ask the agent.
           "<pm><suspend-to-mem enabled='yes'/><suspend-to-disk enabled='yes'/></pm>"
           "<devices><emulator>" +
           daemon_.emulator().string() + "</emulator>" + disk +
           "<controller type='usb' model='none'/><memballoon model='none'/>"
           "<serial type='file'><source path='" +
           top +
           "/console.log' append='on'/><target port='0'/></serial>"
           "<serial type='unix'><source mode='bind' path='" +
           top +
           "/control'/><target port='1'/></serial>"
           "<channel type='unix'><target type='virtio' name='org.qemu.guest_agent.0'/></channel>"
           "</devices></domain>";
}

void ClientGuest::start() {
    std::filesystem::remove(directory_ / "control");
    const std::filesystem::path file = directory_ / "domain.xml";
    std::ofstream(file) << description();
    daemon_.giveAway(file);
    const ProgramResult created = daemon_.virsh({"create", file});
    if (created.status != 0) {
        throw std::runtime_error("libvirt does not start the guest: " + created.errors);
    }
    std::ifstream(daemon_.directory() / "run/libvirt/qemu/run" / (name_ + ".pid")) >> process_;
    shell_ = std::make_unique<GuestShell>(directory_ / "control");
    awaitRestart();
}

void ClientGuest::awaitRestart() {
    try {
        shell_->awaitReady(startLimit);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("the guest does not start: ") + error.what() + "\n" +
                                 console());
    }
}

void ClientGuest::awaitEnd() {
    if (!awaitProgram(process_)) {
        throw HangError("QEMU does not end; the guest's log:\n" + console());
    }
    // libvirt has its own work to do before it lets go of the name.
    daemon_.awaitVirsh({"domstate", name_}, false);
    process_ = -1;
}

}  // namespace corvane::vm
