#include "tests/fakes/fake_process_services.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <stdlib.h>

namespace corvane {

namespace {

template <typename Id>
SystemResult<std::optional<Id>> entryOf(const std::map<std::string, Id>& entries,
                                        const std::string& name, int error) {
    if (error != 0) {
        return SystemError{error};
    }
    const auto found = entries.find(name);
    return found == entries.end() ? std::optional<Id>() : std::optional<Id>(found->second);
}

template <typename Id>
SystemResult<std::optional<Id>> entryOf(const std::map<std::string, Id>& entries, Id id,
                                        int error) {
    if (error != 0) {
        return SystemError{error};
    }
    for (const auto& [name, found] : entries) {
        if (found == id) {
            return std::optional<Id>(id);
        }
    }
    return std::optional<Id>();
}

}  // namespace

SystemResult<std::optional<uid_t>> FakeAccounts::userById(uid_t id) {
    lookups.push_back("user " + std::to_string(id));
    return entryOf(users, id, error);
}

SystemResult<std::optional<uid_t>> FakeAccounts::userByName(const std::string& name) {
    lookups.push_back("user " + name);
    return entryOf(users, name, error);
}

SystemResult<std::optional<gid_t>> FakeAccounts::groupById(gid_t id) {
    lookups.push_back("group " + std::to_string(id));
    return entryOf(groups, id, error);
}

SystemResult<std::optional<gid_t>> FakeAccounts::groupByName(const std::string& name) {
    lookups.push_back("group " + name);
    return entryOf(groups, name, error);
}

FakePrivateDirectory::~FakePrivateDirectory() {
    if (!made_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(made_, ignored);
    }
}

SystemResult<std::string> FakePrivateDirectory::prepare() {
    if (error != 0) {
        return SystemError{error};
    }
    if (path.empty()) {
        std::string name = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
        if (!::mkdtemp(name.data())) {
            return SystemError{errno};
        }
        made_ = name;
        path = name;
    }
    return path;
}

SystemResult<PseudoTerminalPair> FakeTerminals::openPair(const TerminalSettings& settings,
                                                         const winsize& size) {
    if (openError != 0) {
        return SystemError{openError};
    }
    PseudoTerminalPair pair;
    pair.master = DescriptorGuard(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int master = pair.master.borrow();
    if (::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        return SystemError{errno};
    }
    pair.slave = DescriptorGuard(::ioctl(master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (pair.slave.empty() || ::ioctl(pair.slave.borrow(), TIOCSWINSZ, &size) != 0) {
        return SystemError{errno};
    }
    applied.push_back(settings);
    return pair;
}

int FakeTerminals::applySettings(int /*descriptor*/, const TerminalSettings& settings) {
    applied.push_back(settings);
    return applyError;
}

std::optional<std::string> FakeProcessInformation::inputPath(pid_t process) {
    const auto found = inputs.find(process);
    return found == inputs.end() ? std::nullopt : std::optional(found->second.path);
}

SystemResult<DescriptorGuard> FakeProcessInformation::openInput(pid_t process) {
    const auto found = inputs.find(process);
    if (found == inputs.end()) {
        return SystemError{ENOENT};
    }
    DescriptorGuard opened(
        ::open(found->second.realPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.empty()) {
        return SystemError{errno};
    }
    return opened;
}

}  // namespace corvane
