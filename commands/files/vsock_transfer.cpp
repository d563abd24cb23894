#include "commands/files/vsock_transfer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/descriptor_guard.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/platform.h"
#include "platform/vsock_sockets.h"

namespace corvane {

namespace {

using Buffer = std::unique_ptr<char[]>;

struct Listener {
    std::uint32_t contextId;
    std::uint32_t port;
};

/// "<what> with error: <the error's text>"
std::string withError(const std::string& what, int error) {
    return what + " with error: " + errorText(error);
}

DescriptorGuard createSocket(ArgumentReader& reader) {
    if (reader.failed()) {
        return {};
    }
    auto created = platform().vsockSockets.createStream();
    if (!created.ok()) {
        reader.fail(meansNoVsock(created.error(), ENODEV)
                        ? "no vsock transport available"
                        : withError("failed to create vsock socket", created.error()));
        return {};
    }
    return created.take();
}

/// Without a size given, one read takes what the socket holds, and either way of the transfer uses
/// that size.
std::uint64_t bufferSizeFor(const DescriptorGuard& socket, std::uint64_t given,
                            ArgumentReader& reader) {
    if (reader.failed() || given != 0) {
        return given;
    }
    int size = 0;
    socklen_t length = sizeof size;
    if (::getsockopt(socket.borrow(), SOL_SOCKET, SO_RCVBUF, &size, &length) != 0) {
        reader.fail(withError("failed to get socket buffer size", errno));
    } else if (size == 0) {
        reader.fail("buffer-size must be a positive number");
    }
    return static_cast<std::uint64_t>(size);
}

void connectSocket(const DescriptorGuard& socket, Listener listener, ArgumentReader& reader) {
    if (reader.failed()) {
        return;
    }
    const int error =
        platform().vsockSockets.connectTo(socket.borrow(), listener.contextId, listener.port);
    if (error != 0) {
        reader.fail(withError("failed to connect to " + std::to_string(listener.contextId) + ":" +
                                  std::to_string(listener.port),
                              error));
    }
}

/// Asks first: the system gives out more than it has, and ends us when the buffer is filled.
Buffer allocateBuffer(std::uint64_t size, ArgumentReader& reader) {
    if (reader.failed()) {
        return nullptr;
    }
    Buffer buffer(memorySuffices(size) ? new (std::nothrow) char[size] : nullptr);
    if (buffer == nullptr) {
        reader.fail("failed to allocate buffer");
    }
    return buffer;
}

/// Returns how many bytes were written, when the source has no more. A source that fails counts as
/// one that ends.
std::uint64_t copyAll(int source, int destination, char* buffer, std::size_t size,
                      ArgumentReader& reader) {
    std::uint64_t total = 0;
    ssize_t count = 0;
    while ((count = ::read(source, buffer, size)) > 0) {
        errno = 0;  // a write that comes out short need not set it
        const ssize_t written = ::write(destination, buffer, static_cast<std::size_t>(count));
        if (written != count) {
            reader.fail("write error: " + errorText(errno));
            break;
        }
        total += static_cast<std::uint64_t>(written);
    }
    return total;
}

}  // namespace

JsonValue handleGuestFileVSockReadWrite(const JsonObject* arguments, TransferDirection direction) {
    ArgumentReader reader("handleGuestFileVSockReadWrite", arguments);
    std::FILE* const stream = requireFile(reader);
    const std::uint32_t contextId = reader.requireNumber("cid").asUnsigned32();
    const std::uint32_t port = reader.requireNumber("port").asUnsigned32();
    const auto givenSize = reader.optionalNumber("buffer-size");

    DescriptorGuard socket = createSocket(reader);
    const std::uint64_t size =
        bufferSizeFor(socket, givenSize ? givenSize->asUnsigned64() : 0, reader);
    connectSocket(socket, {contextId, port}, reader);
    Buffer buffer = allocateBuffer(size, reader);
    if (reader.failed()) {
        return reader.takeError();
    }

    requireMemory(roomForLine);
    const int file = ::fileno(stream);
    const bool toHost = direction == TransferDirection::guestToHost;
    const std::uint64_t count =
        copyAll(toHost ? file : socket.borrow(), toHost ? socket.borrow() : file, buffer.get(),
                size, reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    JsonValue response = makeSuccessResponse(transferResult(count, stream));
    buffer.reset();
    if (::close(socket.release()) != 0) {
        reader.fail(withError("failed to close socket", errno));
        return reader.takeError();
    }
    return response;
}

JsonValue handleGuestFileVSockRead(const JsonObject* arguments) {
    return handleGuestFileVSockReadWrite(arguments, TransferDirection::guestToHost);
}

JsonValue handleGuestFileVSockWrite(const JsonObject* arguments) {
    return handleGuestFileVSockReadWrite(arguments, TransferDirection::hostToGuest);
}

}  // namespace corvane
