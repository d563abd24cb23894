#include "tests/unit/commands/files/vsock_transfer_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

#include "commands/files/file_handle_table.h"
#include "core/json_writer.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {

namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

}  // namespace

void VsockTransfer::TearDown() {
    for (const std::uint64_t handle : handles_) {
        EXPECT_EQ(closeFile(handle), success);
    }
    FileTest::TearDown();
}

std::uint64_t VsockTransfer::open(const std::string& name, const std::string& mode) {
    handles_.push_back(openFile(name.starts_with('/') ? name : path(name), mode));
    return handles_.back();
}

DescriptorGuard VsockTransfer::connectNext(int type) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::runtime_error("cannot make a socketpair");
    }
    platform_.vsockSockets.nextSocket = DescriptorGuard(ends[0]);
    return DescriptorGuard(ends[1]);
}

void VsockTransfer::expectTransfer(TransferDirection direction, const std::string& arguments,
                                   const std::string& answer, const std::string& standardError) {
    const int socket = platform_.vsockSockets.nextSocket.borrow();
    const JsonValue value = valueOf(arguments);
    testing::internal::CaptureStderr();
    const JsonValue response = handleGuestFileVSockReadWrite(value.object(), direction);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), standardError) << arguments;
    EXPECT_EQ(writeJson(response), answer) << arguments;
    if (platform_.vsockSockets.nextSocket.empty() && closesSocket_) {  // it was given out
        EXPECT_FALSE(isOpen(socket)) << arguments;
    }
    for (const std::uint64_t handle : handles_) {
        ASSERT_NE(streamOf(handle), nullptr) << arguments;
        EXPECT_TRUE(isOpen(::fileno(streamOf(handle)))) << arguments;
    }
}

void VsockTransfer::expectFailure(TransferDirection direction, const std::string& arguments,
                                  const std::string& description) {
    expectTransfer(direction, arguments, errorAnswer(description),
                   "handleGuestFileVSockReadWrite: " + description + "\n");
}

void VsockTransfer::expectCount(TransferDirection direction, const std::string& arguments,
                                std::uint64_t count, bool eof) {
    expectTransfer(direction, arguments, writeAnswer(count, eof));
}

std::string transferOf(std::uint64_t handle, const std::string& more) {
    return withHandle(handle, R"("cid":2,"port":1234)" + (more.empty() ? "" : "," + more));
}

std::string transferInPieces(std::uint64_t handle, const std::string& size) {
    return transferOf(handle, R"("buffer-size":)" + size);
}

std::FILE* streamOf(std::uint64_t handle) {
    const auto found =
        std::find_if(fileHandleTable.begin(), fileHandleTable.end(),
                     [handle](const auto& entry) { return fileHandle(entry.first) == handle; });
    return found == fileHandleTable.end() ? nullptr : found->second;
}

off_t offsetOf(std::uint64_t handle) {
    return ::lseek(::fileno(streamOf(handle)), 0, SEEK_CUR);
}

void moveTo(std::uint64_t handle, off_t offset) {
    EXPECT_EQ(::lseek(::fileno(streamOf(handle)), offset, SEEK_SET), offset);
}

std::string readAll(int descriptor) {
    std::string bytes;
    std::array<char, 65536> piece;
    for (ssize_t count = 0; (count = ::read(descriptor, piece.data(), piece.size())) > 0;) {
        bytes.append(piece.data(), static_cast<std::size_t>(count));
    }
    return bytes;
}

void sendAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::write(descriptor, bytes.data(), bytes.size());
        if (sent <= 0) {
            ADD_FAILURE() << "the agent does not read: " << errno;
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

void inAChild(const std::function<void()>& body) {
    std::fflush(stdout);
    EXPECT_EQ(exitStatusOf([&body] {
                  body();
                  std::fflush(stdout);
                  ::_exit(testing::Test::HasFailure() ? 1 : 0);
              }),
              0);
}

}  // namespace corvane
