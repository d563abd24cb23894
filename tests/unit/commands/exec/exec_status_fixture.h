#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdlib.h>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/exec_status.h"
#include "commands/exec/process_table.h"
#include "core/base64.h"
#include "core/json_writer.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {

/// An id that no process has: the largest that Linux gives out is 2^22. See proc(5), pid_max.
inline constexpr pid_t nobodysPid = 0x7FFFFFFF;

/// Writes all of `bytes` at the descriptor's offset, as a program does to its output.
inline void writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count <= 0) {
            throw std::system_error(errno, std::generic_category(), "write");
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

/// Processes in the table with real capture files, and questions about them.
class ExecStatusFixture : public testing::Test {
 protected:
    ExecStatusFixture() = default;
    ~ExecStatusFixture() override {
        const std::lock_guard lock(processTableLock);
        for (const auto& [pid, record] : processTable) {
            if (record && record->captureOutput) {
                ::close(record->outFd);
                ::close(record->errFd);
            }
        }
        processTable.clear();
    }

    /// A running process without captured output. The table owns the record.
    static ProcessRecord& remember(pid_t pid) {
        auto record = std::make_unique<ProcessRecord>();
        record->running = true;
        record->pid = pid;
        const std::lock_guard lock(processTableLock);
        return *(processTable[pid] = std::move(record));
    }

    /// A running process whose output goes to two new files.
    ProcessRecord& rememberCapturing(pid_t pid) {
        ProcessRecord& record = remember(pid);
        record.captureOutput = true;
        record.outFd = makeFile(record.outPath);
        record.errFd = makeFile(record.errPath);
        return record;
    }

    /// What the reaper does with a wait status.
    static void end(ProcessRecord& record, int status) {
        record.running = false;
        record.status = status;
    }

    static JsonValue poll(pid_t pid) {
        JsonObject arguments;
        arguments.add("pid", JsonNumber::fromSigned(pid));
        return handleGuestExecStatus(&arguments);
    }
    static std::string pollText(pid_t pid) { return writeJson(poll(pid)); }

    /// The bytes behind "out-data" or "err-data" of a response.
    static std::string bytesOf(const JsonValue& response, std::string_view key) {
        const auto bytes = decodeBase64(stringOf(memberOf(memberOf(response, "return"), key)));
        return held(bytes ? &*bytes : nullptr);
    }

    FakePlatform platform_;

 private:
    /// Opens a new file for reading and writing and tells its path.
    int makeFile(std::string& path) {
        path = platform_.privateDirectory.prepare().value() + "/output-XXXXXX";
        return ::mkostemp(path.data(), O_CLOEXEC);
    }
};

inline constexpr char invalidPid[] = R"({"error":{"class":"GenericError","desc":"invalid PID"}})";

}  // namespace corvane
