#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "tests/vm/support/exec_client.h"
#include "tests/vm/support/host_client.h"

namespace corvane::vm {

/// The commands for files in the guest, as a host uses them. What the agent refuses throws
/// RequestRefused with the description.
class FileClient {
 public:
    using Arguments = boost::json::object;
    using Handle = std::uint64_t;

    struct Piece {
        std::string bytes;
        bool eof = false;
    };
    struct Position {
        std::uint64_t position = 0;
        bool eof = false;
    };
    /// What a transfer over vsock, or a write, came to.
    struct Transfer {
        std::uint64_t count = 0;
        bool eof = false;
    };
    /// The commands for transfers over vsock: "read" is from the guest to the host.
    enum class Direction { read, write };

    /// Speaks over `host`, which must live longer and be in step with the agent.
    explicit FileClient(HostClient& host) : host_(host), requests_(host) {}

    boost::json::value ask(std::string_view command, const Arguments& arguments) {
        return requests_.ask(command, arguments);
    }
    /// The description of the error with which the agent answers, and "" when it does not.
    std::string refusalOf(std::string_view command, const Arguments& arguments) {
        return requests_.refusalOf(command, arguments);
    }
    /// Many requests, without waiting for one answer before the next; the answers as they came.
    std::vector<boost::json::value> askAll(std::string_view command,
                                           const std::vector<Arguments>& requests);

    /// Without a mode the request has none.
    Handle open(std::string_view path, std::optional<std::string_view> mode = {});
    void close(Handle handle);
    /// Without a count the request has none.
    Piece read(Handle handle, std::optional<std::uint64_t> count = {});
    Transfer write(Handle handle, std::string_view bytes);
    Position seek(Handle handle, std::int64_t offset, const boost::json::value& whence);
    void flush(Handle handle);

    /// Makes a file of these bytes, so many with each request, and closes it.
    void store(std::string_view path, std::string_view bytes, std::size_t pieceSize);
    /// The bytes of a whole file, read in the same way.
    std::string fetch(std::string_view path, std::size_t pieceSize);

    /// Orders a transfer with a listener at a port of the host. The agent answers when it is over,
    /// and no other request before.
    void startTransfer(Direction direction, Handle handle, unsigned port,
                       const Arguments& further = {});
    /// Waits for the answer.
    Transfer awaitTransfer(Limit limit = hangLimit);
    /// The same for a transfer that fails: the error's description, and "" when there is none.
    std::string awaitRefusal(Limit limit = hangLimit);

 private:
    HostClient& host_;
    ExecClient requests_;  // for the requests that all commands have in common
};

}  // namespace corvane::vm
