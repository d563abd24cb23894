#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_streams.h"
#include "platform/firmware.h"
#include "platform/hypervisor.h"
#include "platform/serial_devices.h"
#include "platform/system_log.h"
#include "platform/vsock_sockets.h"

namespace corvane {

/// Remembers every entry. May also write entries to standard error, for tests of a process that
/// ends.
class FakeSystemLog : public SystemLog {
 public:
    void createCategories(const char* identifier) override { identifier_ = identifier; }
    [[nodiscard]] bool records(LogCategory /*category*/) const override { return recording; }
    void write(LogCategory category, std::string_view text) noexcept override {
        const std::lock_guard lock(mutex_);
        entries_[category].emplace_back(text);
        if (echoToStandardError) {
            std::fwrite(text.data(), 1, text.size(), stderr);
        }
    }

    [[nodiscard]] std::vector<std::string> entries(LogCategory category) const {
        const std::lock_guard lock(mutex_);
        const auto found = entries_.find(category);
        return found == entries_.end() ? std::vector<std::string>() : found->second;
    }
    [[nodiscard]] std::vector<std::string> status() const { return entries(LogCategory::status); }
    [[nodiscard]] std::vector<std::string> transactions() const {
        return entries(LogCategory::transactions);
    }
    [[nodiscard]] const std::string& identifier() const { return identifier_; }

    bool recording = true;
    bool echoToStandardError = false;

 private:
    mutable std::mutex mutex_;
    std::map<LogCategory, std::vector<std::string>> entries_;
    std::string identifier_;
};

/// A machine that publishes what the test puts into it.
class FakeFirmware : public Firmware {
 public:
    std::optional<std::uint64_t> bootArgument(std::string_view name) override {
        const auto found = bootArguments.find(std::string(name));
        return found == bootArguments.end() ? std::nullopt : std::optional(found->second);
    }
    PropertyLookup readProperty(std::string_view node, std::string_view key) override {
        lookups.push_back(std::string(node) + " " + std::string(key));
        const auto found = properties.find(std::string(node));
        return found == properties.end()
                   ? PropertyLookup{PropertyLookup::Outcome::nodeAbsent, 0, {}}
                   : found->second;
    }

    std::map<std::string, std::uint64_t> bootArguments;
    std::map<std::string, PropertyLookup> properties;  ///< by node
    std::vector<std::string> lookups;                  ///< "NODE KEY" of each look-up
};

class FakeSerialDevices : public SerialDevices {
 public:
    std::optional<std::vector<SerialDevice>> list() override { return devices; }

    std::optional<std::vector<SerialDevice>> devices{
        {{"/dev/ttyS0", {"serial8250"}},
         {"/dev/tty.org.qemu.guest_agent.0", {"virtio-ports", "MirelVirtIOConsole", "pci"}}}};
};

class FakeHypervisor : public Hypervisor {
 public:
    std::optional<std::int32_t> presentIndicator() override { return indicator; }

    std::optional<std::int32_t> indicator = 1;
};

/// vsock on socketpairs: the host's end of each connection waits in `hostEnds`.
class FakeVsockSockets : public VsockSockets {
 public:
    SystemResult<DescriptorGuard> createStream() override {
        ++created;
        if (createError != 0) {
            return SystemError{createError};
        }
        if (!nextSocket.empty()) {
            return std::move(nextSocket);
        }
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            return SystemError{errno};
        }
        hostEnds.emplace_back(ends[1]);
        return DescriptorGuard(ends[0]);
    }
    int connectTo(int descriptor, std::uint32_t contextId, std::uint32_t port) override {
        connections.emplace_back(contextId, port);
        lastDescriptor = descriptor;
        return connectError;
    }

    int createError = ENODEV;
    int connectError = 0;
    int created = 0;
    int lastDescriptor = -1;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> connections;  ///< context id, port
    std::vector<DescriptorGuard> hostEnds;
    DescriptorGuard nextSocket;  ///< where there is one, it is given out instead of making one
};

/// The C library's own streams.
class FakeFileStreams : public FileStreams {
 public:
    OwnedStream open(const std::string& path, const std::string& mode) override {
        opened.emplace_back(path, mode);
        return OwnedStream(std::fopen(path.c_str(), mode.c_str()));
    }

    std::vector<std::pair<std::string, std::string>> opened;  ///< path, mode
};

}  // namespace corvane
