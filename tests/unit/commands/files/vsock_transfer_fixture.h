#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "commands/files/vsock_transfer.h"
#include "core/descriptor_guard.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {

/// Transfers between real files and a host at the other end of a socketpair. Whatever comes of a
/// transfer, its socket must be closed, and the files stay open and known.
class VsockTransfer : public FileTest {
 protected:
    VsockTransfer() { platform_.vsockSockets.createError = 0; }
    void TearDown() override;

    /// Opens a file of the directory, until the end of the test.
    std::uint64_t open(const std::string& name, const std::string& mode = "r");

    /// Makes the connection that the next transfer gets, and returns the host's end of it.
    DescriptorGuard connectNext(int type = SOCK_STREAM);

    /// Transfers as the arguments say, which are JSON, and expects these answers.
    void expectTransfer(TransferDirection direction, const std::string& arguments,
                        const std::string& answer, const std::string& standardError = "");

    /// The same for a transfer that fails with `description` on both channels.
    void expectFailure(TransferDirection direction, const std::string& arguments,
                       const std::string& description);

    /// The same for one of `count` bytes that succeeds.
    void expectCount(TransferDirection direction, const std::string& arguments, std::uint64_t count,
                     bool eof = false);

    /// False where the socket cannot be closed.
    bool closesSocket_ = true;

 private:
    std::vector<std::uint64_t> handles_;
};

inline constexpr auto toHost = TransferDirection::guestToHost;
inline constexpr auto toGuest = TransferDirection::hostToGuest;

/// The arguments, as JSON, of a transfer with the host's port 1234; `more` are further members.
std::string transferOf(std::uint64_t handle, const std::string& more = "");

/// The same with a buffer size, as JSON.
std::string transferInPieces(std::uint64_t handle, const std::string& size);

/// The stream of a handle, null where there is none.
std::FILE* streamOf(std::uint64_t handle);

/// Where the descriptor below a stream stands, and moving it there.
off_t offsetOf(std::uint64_t handle);
void moveTo(std::uint64_t handle, off_t offset);

/// All that comes until the other side has closed.
std::string readAll(int descriptor);

/// Sends all of `bytes`, in one piece where the socket takes them so.
void sendAll(int descriptor, std::string_view bytes);

/// Runs `body` in a forked child, whose failed expectations are this test's.
void inAChild(const std::function<void()>& body);

}  // namespace corvane
