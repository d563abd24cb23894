#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/accounts.h"
#include "platform/private_directory.h"
#include "platform/process_information.h"
#include "platform/terminals.h"

namespace corvane {

/// A database with the entries that the test puts into it.
class FakeAccounts : public Accounts {
 public:
    SystemResult<std::optional<uid_t>> userById(uid_t id) override;
    SystemResult<std::optional<uid_t>> userByName(const std::string& name) override;
    SystemResult<std::optional<gid_t>> groupById(gid_t id) override;
    SystemResult<std::optional<gid_t>> groupByName(const std::string& name) override;

    int error = 0;  ///< what every lookup fails with, when not 0
    std::map<std::string, uid_t> users{{"root", 0}};
    std::map<std::string, gid_t> groups{{"root", 0}};
    std::vector<std::string> lookups;  ///< "user 5", "user name", "group 5", "group name"
};

/// A real directory of the test's own, made at the first question and removed with all in it.
class FakePrivateDirectory : public PrivateDirectory {
 public:
    FakePrivateDirectory() = default;
    FakePrivateDirectory(const FakePrivateDirectory&) = delete;
    FakePrivateDirectory& operator=(const FakePrivateDirectory&) = delete;
    ~FakePrivateDirectory() override;

    SystemResult<std::string> prepare() override;

    int error = 0;     ///< what `prepare` fails with, when not 0
    std::string path;  ///< what `prepare` answers; may be chosen by the test
 private:
    std::string made_;
};

/// Real pseudo-terminals that remember what settings they were asked for.
class FakeTerminals : public Terminals {
 public:
    SystemResult<PseudoTerminalPair> openPair(const TerminalSettings& settings,
                                              const winsize& size) override;
    int applySettings(int descriptor, const TerminalSettings& settings) override;

    int openError = 0;
    int applyError = 0;
    std::vector<TerminalSettings> applied;  ///< to an old terminal or a new one, in order
};

/// Processes with the inputs that the test gives them.
class FakeProcessInformation : public ProcessInformation {
 public:
    std::optional<std::string> inputPath(pid_t process) override;
    SystemResult<DescriptorGuard> openInput(pid_t process) override;

    struct Input {
        std::string path;      ///< as the process sees it
        std::string realPath;  ///< what is opened
    };
    std::map<pid_t, Input> inputs;
};

}  // namespace corvane
