// The response is made first, the room for its line is tried out, and what it tells of is released
// last: when memory gives out on the way, the record, its files and descriptors are still there for
// the next poll.

#include "commands/exec/exec_status.h"

#include <unistd.h>

#include <cstddef>
#include <mutex>
#include <string>

#include "commands/exec/captured_output.h"
#include "commands/exec/process_table.h"
#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {

namespace {

/// The two halves of a raw wait status. See waitpid(2) and <bits/waitstatus.h>.
constexpr std::uint32_t signalMask = 0x7F;
constexpr std::uint32_t stoppedMark = 0x7F;  ///< in place of a signal: stopped, not ended
constexpr std::uint32_t exitCodeMask = 0xFF;
constexpr std::uint32_t exitCodeShift = 8;

void addOutput(JsonObject& result, const ProcessRecord& record) {
    result.add("out-data", readCapturedOutput(record.outFd));
    result.add("err-data", readCapturedOutput(record.errFd));
}

void addEnd(JsonObject& result, std::int32_t status) {
    const auto bits = static_cast<std::uint32_t>(status);
    const std::uint32_t signal = bits & signalMask;
    if (signal == stoppedMark) {
        return;
    }
    if (signal != 0) {
        result.add("signal", JsonNumber::fromUnsigned(signal));
    } else {
        result.add("exitcode", JsonNumber::fromUnsigned(bits >> exitCodeShift & exitCodeMask));
    }
}

JsonValue describe(const ProcessRecord& record) {
    JsonObject result;
    result.add("exited", JsonNumber::fromBoolean(!record.running));
    if (record.captureOutput) {
        addOutput(result, record);
    }
    if (!record.running) {
        addEnd(result, record.status);
    }
    return makeSuccessResponse(std::move(result));
}

void releaseCaptureFiles(const ProcessRecord& record) noexcept {
    ::close(record.outFd);
    ::unlink(record.outPath.c_str());
    ::close(record.errFd);
    ::unlink(record.errPath.c_str());
}

}  // namespace

JsonValue handleGuestExecStatus(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestExecStatus", arguments);
    const pid_t pid = reader.requireNumber("pid").asSigned32();
    if (reader.failed()) {
        return reader.takeError();
    }
    const std::lock_guard lock(processTableLock);
    const ProcessRecord* record = processTable[pid].get();
    if (record == nullptr) {
        return makeErrorResponse(genericError, "invalid PID");
    }
    JsonValue response = describe(*record);
    if (!record->running) {
        requireMemory(roomForLine);
        if (record->captureOutput) {
            releaseCaptureFiles(*record);
        }
        processTable.erase(pid);
    }
    return response;
}

}  // namespace corvane
