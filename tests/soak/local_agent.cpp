#include "tests/soak/local_agent.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <pwd.h>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "commands/all_commands.h"
#include "commands/exec/reaper.h"
#include "commands/system/power_button.h"
#include "core/command_table.h"
#include "core/start_up.h"
#include "platform/linux/linux_accounts.h"
#include "platform/linux/linux_channel_device.h"
#include "platform/linux/linux_file_streams.h"
#include "platform/linux/linux_firmware.h"
#include "platform/linux/linux_network_interfaces.h"
#include "platform/linux/linux_private_directory.h"
#include "platform/linux/linux_process_information.h"
#include "platform/linux/linux_terminals.h"
#include "platform/platform.h"
#include "tests/fakes/fake_services.h"
#include "tests/fakes/fake_system_services.h"

namespace corvane {
namespace {

/// A file that begins anew before it becomes large.
class FileLog final : public SystemLog {
 public:
    explicit FileLog(const std::string& path)
        : file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}

    void createCategories(const char* /*identifier*/) override {}
    [[nodiscard]] bool records(LogCategory /*category*/) const override { return true; }
    void write(LogCategory /*category*/, std::string_view text) noexcept override {
        constexpr std::size_t most = 1024 * 1024;
        written_ += text.size();
        if (written_ > most && ::ftruncate(file_.borrow(), 0) == 0) {
            written_ = 0;
        }
        if (::write(file_.borrow(), text.data(), text.size()) < 0) {
            std::abort();
        }
    }

 private:
    DescriptorGuard file_;
    std::atomic<std::size_t> written_ = 0;
};

/// Waits at a socket for the next host.
class ListeningChannel final : public ChannelDevice {
 public:
    explicit ListeningChannel(vm::Descriptor listener) : listener_(std::move(listener)) {}

    SystemResult<DescriptorGuard> openSerial(const char* /*path*/) override {
        DescriptorGuard accepted(::accept4(listener_.borrow(), nullptr, nullptr, SOCK_CLOEXEC));
        if (accepted.empty()) {
            return SystemError{errno};
        }
        return accepted;
    }
    int claimExclusive(int /*descriptor*/) override { return 0; }
    int clearStatusFlags(int /*descriptor*/) override { return 0; }
    ssize_t receive(int descriptor, std::span<char> buffer, int patience) override {
        return device_.receive(descriptor, buffer, patience);
    }
    using ChannelDevice::send;
    void send(int descriptor, std::span<const std::string_view> pieces) noexcept override {
        device_.send(descriptor, pieces);
    }
    void closeChannel(int descriptor) noexcept override { device_.closeChannel(descriptor); }

 private:
    vm::Descriptor listener_;
    LinuxChannelDevice device_;
};

/// The path of the socket that stands for a port of the host.
std::string vsockPath(const std::string& directory, std::uint32_t port) {
    return directory + "/vsock." + std::to_string(port);
}

class UnixVsock final : public VsockSockets {
 public:
    explicit UnixVsock(std::string directory) : directory_(std::move(directory)) {}

    SystemResult<DescriptorGuard> createStream() override {
        DescriptorGuard made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (made.empty()) {
            return SystemError{errno};
        }
        return made;
    }
    int connectTo(int descriptor, std::uint32_t contextId, std::uint32_t port) override {
        if (contextId != hostContextId) {
            return ENODEV;
        }
        const std::string path = vsockPath(directory_, port);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                       0
                   ? 0
                   : errno;
    }

 private:
    std::string directory_;
};

/// In the child. What the machine itself would feel is faked.
[[noreturn]] void serve(const std::string& directory, vm::Descriptor listener) {
    static FileLog log(directory + "/log");
    // Nothing is published in a folder that is not there.
    static LinuxFirmware firmware(directory + "/none", directory + "/none");
    static FakeSerialDevices serialDevices;
    static FakeHypervisor hypervisor;
    static ListeningChannel channel(std::move(listener));
    static UnixVsock vsockSockets(directory);
    static FakeRemoteLogin remoteLogin;
    static LinuxAccounts accounts;
    static LinuxPrivateDirectory privateDirectory(
        directory + "/captured",
        [path = directory + "/captured"](const char* /*name*/) { return path.c_str(); });
    static LinuxTerminals terminals;
    static LinuxProcessInformation processInformation;
    static LinuxFileStreams fileStreams;
    static LinuxNetworkInterfaces networkInterfaces;
    static FakePowerControl powerControl;
    static FakeHidEvents hidEvents;
    static FakeClock clock;
    static Platform services{log,
                             firmware,
                             serialDevices,
                             hypervisor,
                             channel,
                             vsockSockets,
                             remoteLogin,
                             accounts,
                             privateDirectory,
                             terminals,
                             processInformation,
                             fileStreams,
                             networkInterfaces,
                             powerControl,
                             hidEvents,
                             clock};
    static const PlatformScope scope(services);
    useCommandTable(allCommands);
    runAgent({listenForPowerButton, reapChildren});
    ::_exit(EXIT_FAILURE);
}

/// All processes that descend from one, however they came to do so.
std::vector<pid_t> descendantsOf(pid_t ancestor) {
    std::vector<pid_t> found;
    std::error_code error;
    const std::string tasks = "/proc/" + std::to_string(ancestor) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream children(task.path() / "children");
        for (pid_t child = 0; children >> child;) {
            found.push_back(child);
            const std::vector<pid_t> further = descendantsOf(child);
            found.insert(found.end(), further.begin(), further.end());
        }
    }
    return found;
}

bool hasEnded(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("State:")) {
            return line.find('Z') != std::string::npos;
        }
    }
    return false;
}

}  // namespace

LocalAgent::LocalAgent() {
    std::string name = std::filesystem::temp_directory_path() / "corvane-soak-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    directory_ = name;
    // What the agent's programs leave behind comes to us, so that all of it descends from us.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::filesystem::create_directory(captureDirectory());
    std::filesystem::permissions(captureDirectory(), std::filesystem::perms::owner_all);
    vm::Descriptor listener = vm::listenAt(directory_ + "/channel");
    process_ = ::fork();
    if (process_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (process_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int errors = ::open((directory_ + "/stderr").c_str(),
                                  O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(errors, STDERR_FILENO);
        ::close(errors);
        serve(directory_, std::move(listener));
    }
}

LocalAgent::~LocalAgent() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string LocalAgent::shell(const std::string& command) {
    const std::string whole = "agent=" + std::to_string(process_) + "; " + command;
    // NOLINTNEXTLINE(cert-env33-c): these are shell commands.
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(::popen(whole.c_str(), "re"), ::pclose);
    if (pipe == nullptr) {
        throw std::system_error(errno, std::generic_category(), "popen");
    }
    std::string output;
    std::array<char, 4096> buffer;
    for (std::size_t count = 0;
         (count = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;) {
        output.append(buffer.data(), count);
    }
    if (::pclose(pipe.release()) != 0) {
        throw std::runtime_error("'" + command + "' fails: " + output);
    }
    if (output.ends_with('\n')) {
        output.pop_back();
    }
    return output;
}

std::string LocalAgent::processes() {
    return std::to_string(descendantsOf(::getpid()).size());
}

std::string LocalAgent::zombies() {
    return std::to_string(std::ranges::count_if(descendantsOf(::getpid()), hasEnded));
}

vm::Descriptor LocalAgent::listenAtVsock(unsigned port) const {
    return vm::listenAt(vsockPath(directory_, port));
}

std::string LocalAgent::user() const {
    const passwd* entry = ::getpwuid(::geteuid() == 0 ? 65534 : ::geteuid());
    return entry == nullptr ? "nobody" : entry->pw_name;
}

std::string LocalAgent::log() const {
    std::string text;
    for (const char* name : {"/log", "/stderr"}) {
        std::ifstream file(directory_ + name, std::ios::binary);
        const std::string all{std::istreambuf_iterator<char>(file), {}};
        constexpr std::size_t shown = 10'000;
        text += all.substr(all.size() - std::min(all.size(), shown)) + '\n';
    }
    return text;
}

}  // namespace corvane
