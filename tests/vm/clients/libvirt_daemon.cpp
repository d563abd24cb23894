#include "tests/vm/clients/libvirt_daemon.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/vm/support/host_program.h"

namespace corvane::vm {
namespace {

constexpr char otherUser[] = "nobody";

std::string readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    if (!(file << text)) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

std::filesystem::path makeDirectory() {
    std::string name = "/tmp/corvane-libvirt.XXXXXX";  // short: socket paths end at 107 bytes
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return name;
}

/// Ends the children of this process, and those that come to it when these have ended.
void endChildren() {
    for (;;) {
        std::istringstream children(
            readFile("/proc/self/task/" + std::to_string(::getpid()) + "/children"));
        pid_t child = -1;
        while (children >> child) {
            ::kill(child, SIGKILL);
        }
        if (::wait(nullptr) < 0) {
            return;
        }
    }
}

}  // namespace

LibvirtDaemon::LibvirtDaemon() : directory_(makeDirectory()) {
    // What outlives the guard comes to this process, which ends it.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    try {
        writeSettings();
        log_ = std::make_unique<ConsoleLog>(directory_ / "agents.log");
        startGuarded();
        awaitVirsh({"version"}, true);
    } catch (...) {
        endChildren();
        std::filesystem::remove_all(directory_);
        throw;
    }
}

LibvirtDaemon::~LibvirtDaemon() {
    endChildren();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string LibvirtDaemon::uri() const {
    return "qemu:///session?mode=direct&socket=" +
           (directory_ / "run/libvirt/libvirt-sock").string();
}

void LibvirtDaemon::writeSettings() const {
    for (const char* folder : {"run", "cache", "data", "home", "config/libvirt"}) {
        std::filesystem::create_directories(directory_ / folder);
    }
    writeFile(directory_ / "agents.log", "");
    writeFile(directory_ / "config/libvirt/libvirtd.conf",
              "log_filters = \"1:qemu.qemu_agent\"\n"
              "log_outputs = \"1:file:" +
                  (directory_ / "agents.log").string() + "\"\n");
    // No second daemon for logs, and nothing that would need more than an ordinary user may do.
    writeFile(directory_ / "config/libvirt/qemu.conf",
              "stdio_handler = \"file\"\nsecurity_driver = \"none\"\n");
    // QEMU ends with the guard, see startGuarded().
    writeFile(emulator(), "#!/bin/sh\nexec setpriv --pdeathsig KILL qemu-system-x86_64 \"$@\"\n");
    std::filesystem::permissions(emulator(), std::filesystem::perms(0755));
    giveAway(directory_);
}

/// The daemon detaches QEMU from itself. The guard gets it as a child instead, so that it ends with
/// the tests even when they are killed, and takes note of each end at once: the daemon waits until
/// somebody has.
void LibvirtDaemon::startGuarded() const {
    const pid_t parent = ::getpid();
    const pid_t guard = ::fork();
    if (guard < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (guard == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        if (::getppid() == parent) {
            start("libvirtd", {"libvirtd"});
        }
        while (::wait(nullptr) > 0 || errno == EINTR) {
        }
        ::_exit(0);
    }
}

void LibvirtDaemon::giveAway(const std::filesystem::path& path) const {
    if (::geteuid() != 0) {
        return;
    }
    const passwd* user = ::getpwnam(otherUser);
    if (user == nullptr || ::lchown(path.c_str(), user->pw_uid, user->pw_gid) != 0) {
        throw std::system_error(errno, std::generic_category(), "owner of " + path.string());
    }
    if (std::filesystem::is_directory(path)) {
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            giveAway(entry.path());
        }
    }
}

std::filesystem::path LibvirtDaemon::outputPath(const std::string& name) const {
    return directory_ / (name + ".output");
}

std::filesystem::path LibvirtDaemon::errorPath(const std::string& name) const {
    return directory_ / (name + ".errors");
}

pid_t LibvirtDaemon::start(const std::string& name, const std::vector<std::string>& words,
                           const std::vector<int>& inherited) const {
    const std::string top = directory_;
    std::vector<std::string> all = {"setpriv"};
    if (::geteuid() == 0) {
        all.insert(all.end(),
                   {std::string("--reuid=") + otherUser, "--regid=nogroup", "--clear-groups"});
    }
    // Its own end with its parent is forgotten when the user changes.
    all.insert(all.end(),
               {"--pdeathsig", "KILL", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                "LC_ALL=C.UTF-8", "TZ=UTC", "LIBVIRT_AUTOSTART=0", "HOME=" + top + "/home",
                "XDG_RUNTIME_DIR=" + top + "/run", "XDG_CONFIG_HOME=" + top + "/config",
                "XDG_CACHE_HOME=" + top + "/cache", "XDG_DATA_HOME=" + top + "/data"});
    all.insert(all.end(), words.begin(), words.end());
    std::filesystem::remove(outputPath(name));
    std::filesystem::remove(errorPath(name));
    return startProgram({.words = all,
                         .outputPath = outputPath(name),
                         .errorPath = errorPath(name),
                         .inherited = inherited});
}

std::string LibvirtDaemon::errorsOf(const std::string& name) const {
    return readFile(errorPath(name));
}

ProgramResult LibvirtDaemon::run(const std::vector<std::string>& words, Limit limit) const {
    const std::string name = "run";
    const std::optional<int> status = awaitProgram(start(name, words), limit);
    if (!status) {
        throw HangError(words.front() + " does not end");
    }
    return {WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, readFile(outputPath(name)),
            errorsOf(name)};
}

ProgramResult LibvirtDaemon::virsh(std::vector<std::string> words, Limit limit) const {
    words.insert(words.begin(), {"virsh", "--connect", uri()});
    return run(words, limit);
}

void LibvirtDaemon::awaitVirsh(const std::vector<std::string>& words, bool succeeds) const {
    const auto deadline = std::chrono::steady_clock::now() + hangLimit;
    for (;;) {
        const ProgramResult result = virsh(words);
        if ((result.status == 0) == succeeds) {
            return;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw HangError("virsh " + words.front() + " goes on to say: " + result.output +
                            result.errors + log_->since(0));
        }
    }
}

}  // namespace corvane::vm
