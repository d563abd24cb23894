#include "bench/agent_on_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "commands/exec/exec.h"
#include "commands/exec/exec_status.h"
#include "commands/files/file_close.h"
#include "commands/files/file_open.h"
#include "commands/files/file_read.h"
#include "commands/files/file_seek.h"
#include "commands/files/file_write.h"
#include "commands/handshake/ping.h"
#include "core/channel.h"
#include "core/command_table.h"
#include "core/read_loop.h"

namespace corvane {

namespace {

JsonValue ignoreArguments(const JsonObject* /*arguments*/) {
    return JsonObject();
}

const std::array<Command, 9> commands = {{
    {"guest-ping", handleGuestPing, 1, ReportCondition::always},
    {"guest-exec", handleGuestExec, 3, ReportCondition::always},
    {"guest-exec-status", handleGuestExecStatus, 4, ReportCondition::always},
    {"guest-file-open", handleGuestFileOpen, 5, ReportCondition::always},
    {"guest-file-close", handleGuestFileClose, 6, ReportCondition::always},
    {"guest-file-read", handleGuestFileRead, 7, ReportCondition::always},
    {"guest-file-write", handleGuestFileWrite, 8, ReportCondition::always},
    {"guest-file-seek", handleGuestFileSeek, 9, ReportCondition::always},
    {"ignore", ignoreArguments, 2, ReportCondition::always},
}};

}  // namespace

SystemResult<DescriptorGuard> SocketChannelDevice::openSerial(const char* /*path*/) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return SystemError{errno};
    }
    hostEnd = DescriptorGuard(ends[1]);
    return DescriptorGuard(ends[0]);
}

BenchPlatform::BenchPlatform() {
    useCommandTable(commands);
}

AgentOnSocket::AgentOnSocket() {
    openChannel();
    loop_ = std::thread([this] {
        ReadLoop loop;
        while (!ending_) {
            loop.pass();
        }
    });
}

AgentOnSocket::~AgentOnSocket() {
    // The loop looks at the flag when a pass is over: an empty line makes it end one.
    ending_ = true;
    sendAll(hostEnd(), "\n");
    loop_.join();
    platform_.channelDevice.closeChannel(channelDescriptor());
}

void sendAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = ::write(descriptor, text.data(), text.size());
        if (sent <= 0) {
            throw std::runtime_error("cannot write to the agent");
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string_view receiveLine(int descriptor) {
    thread_local std::array<char, 65536> buffer;
    ssize_t count = 0;
    do {
        count = ::read(descriptor, buffer.data(), buffer.size());
        if (count <= 0) {
            throw std::runtime_error("cannot read from the agent");
        }
    } while (buffer[static_cast<std::size_t>(count) - 1] != '\n');
    return {buffer.data(), static_cast<std::size_t>(count)};
}

}  // namespace corvane
