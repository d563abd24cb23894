#include "commands/exec/launch.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "commands/exec/child_process.h"
#include "commands/exec/exec_request.h"
#include "commands/exec/pipe.h"
#include "commands/exec/process_table.h"
#include "commands/exec/streams.h"
#include "commands/exec/terminal_relay.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/terminals.h"

namespace corvane {

namespace {

JsonValue failure(std::string description) {
    return makeErrorResponse(genericError, std::move(description));
}

/// Puts a new terminal between the connection and the program: a relay process gets the connection
/// and the terminal's master end, the program its slave end. Returns why that failed.
std::optional<std::string> startTerminalRelay(const ExecRequest& request,
                                              const DescriptorGuard& started, Streams& streams) {
    auto opened = platform().terminals.openPair(*request.terminalSettings, *request.windowSize);
    if (!opened.ok()) {
        return "failed to openpty: " + errorText(opened.error());
    }
    PseudoTerminalPair terminal = opened.take();
    const pid_t relay = ::fork();
    if (relay < 0) {
        return "failed to fork pty child: " + errorText(errno);
    }
    if (relay == 0) {
        runTerminalRelay(streams.input.borrow(), terminal.master.borrow(), started.borrow());
    }
    streams.input = std::move(terminal.slave);
    return std::nullopt;
}

/// What the child's streams are to be. They stay ours.
void lendStreams(const Streams& streams, bool captureOutput, ChildSetup& setup) {
    setup.standardInput = streams.input.borrow();
    const auto orInput = [&](const DescriptorGuard& stream) {
        return streams.inputServesAll ? streams.input.borrow() : stream.borrow();
    };
    setup.standardOutput = orInput(streams.output);
    setup.standardError = orInput(streams.error);
    if (captureOutput) {
        setup.kept[0] = setup.standardOutput;
        setup.kept[1] = setup.standardError;
    }
}

/// Writes all of `bytes`, or what the program takes of them before it closes its input. Waits as
/// long as the program takes its time.
void writeInput(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return;
        }
    }
}

/// The record, to be moved into the process table without needing memory.
ProcessTable::node_type makeEntry(bool captureOutput, const Streams& streams) {
    auto record = std::make_unique<ProcessRecord>();
    record->running = true;
    record->captureOutput = captureOutput;
    record->outPath = streams.outPath;
    record->errPath = streams.errPath;
    ProcessTable made;
    made.emplace(0, std::move(record));
    return made.extract(made.begin());
}

/// When memory runs out on the way to the program, its capture files go again: their number is not
/// used again, and no record will tell of them.
class FilesUntilRecorded {
 public:
    explicit FilesUntilRecorded(const Streams& streams) noexcept : streams_(streams) {}
    FilesUntilRecorded(const FilesUntilRecorded&) = delete;
    FilesUntilRecorded& operator=(const FilesUntilRecorded&) = delete;
    ~FilesUntilRecorded() {
        if (std::uncaught_exceptions() > 0 && !streams_.outPath.empty()) {
            ::unlink(streams_.outPath.c_str());
            ::unlink(streams_.errPath.c_str());
        }
    }

 private:
    const Streams& streams_;
};

}  // namespace

JsonValue launch(ExecRequest request) {
    Streams streams;
    const FilesUntilRecorded files(streams);
    if (auto reason = openStreams(request, streams)) {
        return failure(std::move(*reason));
    }
    // Nobody has the write end any more when the program has started: whoever holds the read end
    // then finds its end.
    auto made = makePipe();
    if (!made.ok()) {
        return failure("failed to fork child: " + errorText(made.error()));
    }
    Pipe startSignal = made.take();
    if (request.vsockTarget && request.terminalSettings && request.windowSize) {
        if (auto reason = startTerminalRelay(request, startSignal.readEnd, streams)) {
            return failure(std::move(*reason));
        }
    }

    const bool captureOutput = request.captureOutput;
    const auto inputData = std::exchange(request.inputData, std::nullopt);

    std::unique_lock lock(processTableLock);
    auto child = std::make_unique<ChildProcess>(std::move(request));
    lendStreams(streams, captureOutput, child->setup);
    child->setup.untilStart = startSignal.writeEnd.borrow();
    child->started = std::move(startSignal.readEnd);
    auto entry = makeEntry(captureOutput, streams);
    ProcessRecord& record = *entry.mapped();
    processTable.reserve(processTable.size() + 1);
    ChildProcess::reserveStart();
    requireMemory(roomForLine);
    JsonValue response = makeSuccessResponse(JsonObject{{"pid", JsonNumber::fromSigned(0)}});
    // From here on nothing needs memory.
    if (captureOutput) {
        record.outFd = streams.output.release();
        record.errFd = streams.error.release();
    }
    sigset_t all;
    sigset_t previous;
    ::sigfillset(&all);
    if (const int error = ::pthread_sigmask(SIG_SETMASK, &all, &previous)) {
        // The lock stays taken: whatever made this call fail, no child can be started safely.
        keepProcessTableLocked(std::move(lock));
        return failure("failed to block signals: " + errorText(error));
    }
    auto started = ChildProcess::start(std::move(child));
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    startSignal.writeEnd.closeNow();
    if (!started.ok()) {
        return failure("failed to fork child: " + errorText(started.error()));
    }
    const pid_t pid = started.value();
    record.pid = pid;
    if (inputData) {
        // With our copy of the read end open, a program that ends without reading all of its input
        // would leave us waiting for ever.
        streams.input.closeNow();
        writeInput(streams.inputWriteEnd.borrow(), *inputData);
    }
    entry.key() = pid;
    processTable.erase(pid);
    processTable.insert(std::move(entry));
    lock.unlock();
    // What the host does next, such as resizing a terminal, is meant for the program.
    ChildProcess::awaitStart();
    *response.object()->find("return")->object()->find("pid") = JsonNumber::fromSigned(pid);
    return response;
}

}  // namespace corvane
