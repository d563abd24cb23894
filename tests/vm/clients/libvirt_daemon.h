#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/vm/support/console_log.h"

namespace corvane::vm {

/// What a program has done that ran to its end.
struct ProgramResult {
    int status = 0;
    std::string output;
    std::string errors;
};

/// libvirt's session daemon, with everything that it reads and writes in a directory of its own:
/// it knows nothing of the daemons, machines and settings of whoever runs the tests. It runs as an
/// ordinary user, as "nobody" where the tests run as root, since root has no sessions. What it has
/// started is ended with it.
class LibvirtDaemon {
 public:
    /// Returns when the daemon serves.
    LibvirtDaemon();
    LibvirtDaemon(const LibvirtDaemon&) = delete;
    LibvirtDaemon& operator=(const LibvirtDaemon&) = delete;
    ~LibvirtDaemon();

    const std::filesystem::path& directory() const { return directory_; }
    /// What clients connect to.
    std::string uri() const;
    /// A program that the daemon may start in place of QEMU's own.
    std::filesystem::path emulator() const { return directory_ / "emulator"; }
    /// The part of its log that is about guest agents: what it sends to them and what they answer.
    ConsoleLog& log() { return *log_; }

    /// Gives a file or folder, with all that is in it, to the user that the daemon runs as.
    void giveAway(const std::filesystem::path& path) const;
    /// Starts a program as that user, in the daemon's environment; returns its process id. Its
    /// output goes to the files NAME.output and NAME.errors.
    pid_t start(const std::string& name, const std::vector<std::string>& words,
                const std::vector<int>& inherited = {}) const;
    /// What it has written to its standard error so far.
    std::string errorsOf(const std::string& name) const;
    /// Runs one to its end.
    ProgramResult run(const std::vector<std::string>& words, Limit limit = hangLimit) const;
    /// Runs virsh at this daemon.
    ProgramResult virsh(std::vector<std::string> words, Limit limit = hangLimit) const;
    /// Runs it again and again until it succeeds, or until it fails: for states that nothing
    /// announces.
    void awaitVirsh(const std::vector<std::string>& words, bool succeeds) const;

 private:
    void writeSettings() const;
    void startGuarded() const;
    std::filesystem::path outputPath(const std::string& name) const;
    std::filesystem::path errorPath(const std::string& name) const;

    std::filesystem::path directory_;
    std::unique_ptr<ConsoleLog> log_;
};

}  // namespace corvane::vm
