#include "platform/linux/port_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/linux/virtio_port.h"

namespace corvane {
namespace {

/// A socket pair behaves as a port does in what is tested here.
class PortCallsTest : public testing::Test {
 protected:
    void SetUp() override {
        ::signal(SIGPIPE, SIG_IGN);
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        ASSERT_EQ(::fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
        guest_ = DescriptorGuard(ends[0]);
        host_ = DescriptorGuard(ends[1]);
        auto watch = DescriptorPortCalls::watch(ends[0]);
        ASSERT_TRUE(watch.ok());
        calls_ = std::make_unique<DescriptorPortCalls>(ends[0], watch.take());
    }

    void hostSends(const std::string& text) const {
        ASSERT_EQ(::write(host_.borrow(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    DescriptorGuard guest_;
    DescriptorGuard host_;
    std::unique_ptr<DescriptorPortCalls> calls_;
    std::array<char, 8192> buffer_{};
};

TEST_F(PortCallsTest, TheHostIsThereUntilItLeaves) {
    EXPECT_EQ(calls_->waitForInput(1), PortCalls::InputState::silent);
    hostSends("x");
    EXPECT_EQ(calls_->waitForInput(PortCalls::noLimit), PortCalls::InputState::ready);
    host_.closeNow();
    EXPECT_EQ(calls_->waitForInput(PortCalls::noLimit), PortCalls::InputState::noHost);
}

TEST_F(PortCallsTest, ADescriptorThatIsNoneHasNoHost) {
    DescriptorPortCalls none(-1, DescriptorGuard());
    DescriptorPortCalls closed(1 << 20, DescriptorGuard());
    EXPECT_EQ(closed.waitForInput(PortCalls::noLimit), PortCalls::InputState::noHost);
    EXPECT_EQ(closed.waitForOutput(), PortCalls::OutputState::failed);
    EXPECT_EQ(none.waitForChange(PortCalls::noLimit), PortCalls::Change::failed);
}

TEST_F(PortCallsTest, OutputIsTriedWhenTheWaitForItFails) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 0;  // more descriptors than may be open cannot be waited on
    // A sanitizer looks at the objects when they are first used, with descriptors.
    pollfd waited{guest_.borrow(), POLLOUT, 0};
    ASSERT_EQ(calls_->waitForOutput(), PortCalls::OutputState::ready);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int outcome = ::poll(&waited, 1, 0);
    const PortCalls::OutputState state = calls_->waitForOutput();
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(outcome, -1) << "the wait does not fail";
    EXPECT_EQ(state, PortCalls::OutputState::ready);
}

TEST_F(PortCallsTest, AChangeThatCameBeforeTheWaitEndsIt) {
    hostSends("x");
    EXPECT_EQ(calls_->waitForChange(PortCalls::noLimit), PortCalls::Change::happened);
    EXPECT_EQ(calls_->read(buffer_), 1);
}

TEST_F(PortCallsTest, EveryChangeEndsAWaitOfItsOwn) {
    EXPECT_EQ(calls_->waitForChange(PortCalls::noLimit),
              PortCalls::Change::happened);  // the port's first state counts as one
    std::thread host([this] { hostSends("x"); });
    EXPECT_EQ(calls_->waitForChange(PortCalls::noLimit), PortCalls::Change::happened);
    host.join();
    EXPECT_EQ(calls_->read(buffer_), 1);
    host_.closeNow();
    EXPECT_EQ(calls_->waitForChange(PortCalls::noLimit), PortCalls::Change::happened);
}

TEST_F(PortCallsTest, APortIsReceivedFromWhenTheHostSends) {
    VirtioPort port(*calls_);
    std::thread host([this] { hostSends("ping\n"); });
    EXPECT_EQ(port.receive(buffer_), 5);
    host.join();
    host_.closeNow();
    EXPECT_EQ(port.receive(buffer_), 0);
    EXPECT_TRUE(port.inputHasEnded());
}

TEST_F(PortCallsTest, AResponseLargerThanTheKernelTakesArrivesWhole) {
    const std::string response(4U << 20U, 'x');
    std::size_t received = 0;
    std::thread host([this, &received, &response] {
        std::array<char, 65536> piece;
        while (received < response.size()) {
            const ssize_t count = ::read(host_.borrow(), piece.data(), piece.size());
            if (count <= 0) {
                return;
            }
            received += static_cast<std::size_t>(count);
        }
    });
    VirtioPort(*calls_).send(response);
    ::shutdown(guest_.borrow(), SHUT_WR);
    host.join();
    EXPECT_EQ(received, response.size());
}

TEST_F(PortCallsTest, AHostThatLeavesInTheMiddleFreesTheSender) {
    std::thread host([this] {
        std::array<char, 4096> piece;
        EXPECT_GT(::read(host_.borrow(), piece.data(), piece.size()), 0);
        host_.closeNow();
    });
    VirtioPort(*calls_).send(std::string(4U << 20U, 'x'));
    host.join();
}

TEST_F(PortCallsTest, AWaitWithALimitEndsWhenNothingHappens) {
    EXPECT_EQ(calls_->waitForChange(PortCalls::noLimit), PortCalls::Change::happened);
    EXPECT_EQ(calls_->waitForChange(1), PortCalls::Change::none);
}

TEST(PortCalls, WhatCannotBeWatchedGivesTheKernelsError) {
    EXPECT_EQ(DescriptorPortCalls::watch(-1).error(), EBADF);
    const DescriptorGuard file(::memfd_create("file", MFD_CLOEXEC));
    EXPECT_EQ(DescriptorPortCalls::watch(file.borrow()).error(), EPERM);
}

}  // namespace
}  // namespace corvane
