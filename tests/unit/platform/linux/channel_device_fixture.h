#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/linux_channel_device.h"
#include "tests/unit/platform/linux/pseudo_terminal.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {

/// What ends the input of a terminal in its default settings when it is typed.
inline constexpr char endOfInputKey[] = "\x04";

inline bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

inline bool doesNotBlock(int descriptor) {
    return (::fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0;
}

/// A channel device, and a socket pair as an ordinary channel.
class ChannelDeviceTest : public testing::Test {
 protected:
    void SetUp() override {
        ::signal(SIGPIPE, SIG_IGN);
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        ours_ = DescriptorGuard(ends[0]);
        peer_ = DescriptorGuard(ends[1]);
    }

    std::string receiveText(int descriptor) {
        const ssize_t count = device_.receive(descriptor, buffer_);
        return count < 0 ? "error" : std::string(buffer_.data(), static_cast<std::size_t>(count));
    }

    TemporaryTree sys_;
    LinuxChannelDevice device_{sys_.path()};
    DescriptorGuard ours_;
    DescriptorGuard peer_;
    std::array<char, 8192> buffer_{};
};

/// And a terminal as a serial channel.
class SerialChannelTest : public ChannelDeviceTest {
 protected:
    DescriptorGuard openTerminal() {
        auto opened = device_.openSerial(terminal_.path().c_str());
        EXPECT_TRUE(opened.ok());
        return opened.ok() ? opened.take() : DescriptorGuard();
    }

    PseudoTerminal terminal_;
};

}  // namespace corvane
