#pragma once

// The services that handlers move bytes with, on memory alone: no path of the machine is opened.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "commands/exec/process_table.h"
#include "commands/files/file_handle_table.h"
#include "platform/linux/linux_file_streams.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/check.h"

namespace corvane {

/// The real streams on a few files in memory, which all paths but those that begin with '!' name.
class MemoryFileStreams final : public FileStreams {
 public:
    /// As large as one may become, by the limit of the process: what is sent fits the sockets then.
    static constexpr rlim_t largestFile = 32 * 1024;

    MemoryFileStreams() {
        for (DescriptorGuard& file : files_) {
            file = DescriptorGuard(::memfd_create("file", MFD_CLOEXEC));
        }
    }

    OwnedStream open(const std::string& path, const std::string& mode) override {
        if (path.starts_with('!')) {
            return nullptr;
        }
        const std::size_t index = path.empty() ? 0U : static_cast<unsigned char>(path.back());
        return streams_.open(
            "/proc/self/fd/" + std::to_string(files_[index % files_.size()].borrow()), mode);
    }

 private:
    LinuxFileStreams streams_;
    std::array<DescriptorGuard, 3> files_;
};

/// Hosts that have sent something and hung up by half. One that is sent more than its socket holds
/// breaks the connection, since nobody reads here.
class MemoryVsockSockets final : public VsockSockets {
 public:
    SystemResult<DescriptorGuard> createStream() override {
        std::array<int, 2> ends{};
        check(
            ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
            "there are sockets");
        hostEnd_ = DescriptorGuard(ends[1]);
        constexpr std::string_view sent = "what the host has sent";
        check(::send(ends[1], sent.data(), sent.size(), 0) > 0, "the host can send");
        ::shutdown(ends[1], SHUT_WR);
        return DescriptorGuard(ends[0]);
    }
    int connectTo(int /*descriptor*/, std::uint32_t contextId, std::uint32_t /*port*/) override {
        return contextId == hostContextId ? 0 : ECONNRESET;
    }

 private:
    DescriptorGuard hostEnd_;
};

/// No file grows beyond `largestFile` while this lives. Writes that fail for that, or for a peer
/// that has gone, only fail, as in the agent.
class SmallFiles {
 public:
    SmallFiles() {
        ::signal(SIGXFSZ, SIG_IGN);
        ::signal(SIGPIPE, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        rlimit small = before_;
        small.rlim_cur = MemoryFileStreams::largestFile;
        ::setrlimit(RLIMIT_FSIZE, &small);
    }
    ~SmallFiles() { ::setrlimit(RLIMIT_FSIZE, &before_); }
    SmallFiles(const SmallFiles&) = delete;
    SmallFiles& operator=(const SmallFiles&) = delete;

 private:
    rlimit before_{};
};

/// Programs that the agent seems to have started: 1 runs, 2 has exited, 3 was killed. The first
/// two have captured output.
class SeemingPrograms {
 public:
    SeemingPrograms() {
        add(1, true, 0, true);
        add(2, false, 3 << 8, true);
        add(3, false, 9, false);
    }
    ~SeemingPrograms() {
        for (const auto& [pid, record] : processTable) {
            if (record != nullptr && record->captureOutput) {
                ::close(record->outFd);
                ::close(record->errFd);
            }
        }
        processTable.clear();
    }
    SeemingPrograms(const SeemingPrograms&) = delete;
    SeemingPrograms& operator=(const SeemingPrograms&) = delete;

 private:
    static void add(pid_t pid, bool running, std::int32_t status, bool captures) {
        auto record = std::make_unique<ProcessRecord>();
        record->running = running;
        record->pid = pid;
        record->status = status;
        record->captureOutput = captures;
        if (captures) {
            record->outFd = ::memfd_create("output", MFD_CLOEXEC);
            record->errFd = ::memfd_create("errors", MFD_CLOEXEC);
            check(::write(record->outFd, "output", 6) == 6, "output can be written");
        }
        processTable[pid] = std::move(record);
    }
};

/// Closes what hosts have left open.
inline void closeAllFiles() {
    for (const auto& [handle, stream] : fileHandleTable) {
        std::fclose(stream);
    }
    fileHandleTable.clear();
}

}  // namespace corvane
