#include "commands/exec/streams.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "commands/exec/capture_files.h"
#include "commands/exec/exec_request.h"
#include "commands/exec/pipe.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/terminals.h"
#include "platform/vsock_sockets.h"

namespace corvane {

namespace {

using Failure = std::optional<std::string>;

constexpr char nullDevice[] = "/dev/null";

Failure openFile(const std::string& path, int flags, DescriptorGuard& file) {
    file = DescriptorGuard(::open(path.c_str(), flags | O_RDWR | O_CLOEXEC, 0600));
    if (file.empty()) {
        return "failed to open " + path + ": " + errorText(errno);
    }
    return std::nullopt;
}

Failure connectStreams(const VsockTarget& target, Streams& streams) {
    VsockSockets& vsock = platform().vsockSockets;
    auto created = vsock.createStream();
    if (!created.ok()) {
        if (meansNoVsock(created.error(), ENXIO)) {
            return "vsock transport not available";
        }
        return "failed to create vsock socket: " + errorText(created.error());
    }
    streams.input = created.take();
    const auto contextId = static_cast<std::uint32_t>(target.contextId);
    const auto port = static_cast<std::uint32_t>(target.port);
    if (const int error = vsock.connectTo(streams.input.borrow(), contextId, port)) {
        return "failed to to connect to 'vsock://" + std::to_string(contextId) + ":" +
               std::to_string(port) + "': " + errorText(error);
    }
    streams.inputServesAll = true;
    return std::nullopt;
}

Failure openInputPipe(Streams& streams) {
    auto made = makePipe();
    if (!made.ok()) {
        return "unable to allocate stdin pipe";
    }
    streams.input = std::move(made.value().readEnd);
    streams.inputWriteEnd = std::move(made.value().writeEnd);
    return std::nullopt;
}

/// The input may be a terminal. The messages about it name the program, as hosts know them.
Failure openInputPath(const ExecRequest& request, Streams& streams) {
    if (auto failure = openFile(*request.stdinPath, O_NONBLOCK | O_NOCTTY, streams.input)) {
        return failure;
    }
    const int input = streams.input.borrow();
    if (request.windowSize && ::ioctl(input, TIOCSWINSZ, &*request.windowSize) != 0) {
        return "failed to update window size for " + request.path + ": " + errorText(errno);
    }
    if (request.terminalSettings) {
        if (const int error =
                platform().terminals.applySettings(input, *request.terminalSettings)) {
            return "failed to update termios for " + request.path + ": " + errorText(error);
        }
    }
    return std::nullopt;
}

Failure openInput(const ExecRequest& request, Streams& streams) {
    if (request.vsockTarget) {
        return connectStreams(*request.vsockTarget, streams);
    }
    if (request.inputData) {
        return openInputPipe(streams);
    }
    if (request.stdinPath) {
        return openInputPath(request, streams);
    }
    return openFile(nullDevice, 0, streams.input);
}

Failure captureOutput(Streams& streams) {
    CaptureFiles files;
    if (auto failure = openCaptureFiles(files)) {
        return failure;
    }
    streams.output = std::move(files.out);
    streams.outPath = std::move(files.outPath);
    streams.error = std::move(files.err);
    streams.errPath = std::move(files.errPath);
    return std::nullopt;
}

Failure openOutputs(const ExecRequest& request, Streams& streams) {
    if (request.captureOutput) {
        return captureOutput(streams);
    }
    if (streams.inputServesAll) {
        return std::nullopt;
    }
    constexpr int flags = O_CREAT | O_TRUNC | O_NOCTTY;
    if (auto failure = openFile(request.stdoutPath.value_or(nullDevice), flags, streams.output)) {
        return failure;
    }
    return openFile(request.stderrPath.value_or(nullDevice), flags, streams.error);
}

}  // namespace

std::optional<std::string> openStreams(const ExecRequest& request, Streams& streams) {
    if (auto failure = openInput(request, streams)) {
        return failure;
    }
    return openOutputs(request, streams);
}

}  // namespace corvane
