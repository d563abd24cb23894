#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "tests/unit/platform/linux/channel_device_fixture.h"

namespace corvane {
namespace {

/// A terminal that the tree in place of /sys calls a virtio port.
class PortChannelTest : public SerialChannelTest {
 protected:
    PortChannelTest() { declareVirtioPort(sys_, terminal_.path()); }

    /// Opens the port, sees its input end and lets go of it. Returns the descriptor's number.
    int openAndPark() {
        const int port = openTerminal().release();
        EXPECT_EQ(device_.clearStatusFlags(port), 0);
        terminal_.type(endOfInputKey);
        EXPECT_EQ(device_.receive(port, buffer_), 0);
        device_.closeChannel(port);
        return port;
    }
};

TEST_F(PortChannelTest, APortNeedsNoClaimOfItsOwn) {
    // A device that knows no terminal requests but can be waited on, as a port is.
    constexpr char device[] = "/dev/kmsg";
    if (::access(device, R_OK | W_OK) != 0) {
        GTEST_SKIP() << device << " is not for us to open";
    }
    declareVirtioPort(sys_, device);
    auto opened = device_.openSerial(device);
    ASSERT_TRUE(opened.ok());
    ASSERT_NE(::ioctl(opened.value().borrow(), TIOCEXCL), 0);
    ASSERT_EQ(errno, ENOTTY);
    EXPECT_EQ(device_.claimExclusive(opened.value().borrow()), 0);
    device_.closeChannel(opened.value().release());
}

TEST_F(PortChannelTest, APortNeverBlocksByItself) {
    const DescriptorGuard port = openTerminal();
    ASSERT_EQ(device_.clearStatusFlags(port.borrow()), 0);
    EXPECT_TRUE(doesNotBlock(port.borrow()));
    EXPECT_EQ(device_.receive(port.borrow(), buffer_, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PortChannelTest, APortWhoseInputHasEndedIsKeptAndGivenBack) {
    const int port = openAndPark();
    EXPECT_TRUE(isOpen(port));
    const DescriptorGuard again = openTerminal();
    EXPECT_EQ(again.borrow(), port);
    EXPECT_TRUE(doesNotBlock(port));
}

TEST_F(PortChannelTest, WhatArrivedWhileThePortWasKeptIsReceived) {
    openAndPark();
    terminal_.type("ping\n");
    const int port = openTerminal().release();
    ASSERT_EQ(device_.clearStatusFlags(port), 0);
    EXPECT_EQ(receiveText(port), "ping\n");
    device_.closeChannel(port);
}

TEST_F(PortChannelTest, APortThatWasGivenBackCanBeKeptAgain) {
    const int port = openAndPark();
    EXPECT_EQ(openAndPark(), port);
    EXPECT_TRUE(isOpen(port));
}

TEST_F(PortChannelTest, APortIsFoundAgainUnderAnotherPath) {
    const int port = openAndPark();
    sys_.makeLink("link", terminal_.path());
    auto again = device_.openSerial(sys_.path("link").c_str());
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(again.value().borrow(), port);
}

TEST_F(PortChannelTest, OpeningAnotherDeviceClosesTheOneKept) {
    const int port = openAndPark();
    const PseudoTerminal other;
    const DescriptorGuard kept(::fcntl(ours_.borrow(), F_DUPFD_CLOEXEC, port + 1));
    auto opened = device_.openSerial(other.path().c_str());
    ASSERT_TRUE(opened.ok());
    EXPECT_EQ(opened.value().borrow(), port);  // the number was free again
}

TEST_F(PortChannelTest, ADeviceThatHasDisappearedIsNotKept) {
    const int port = openAndPark();
    EXPECT_EQ(device_.openSerial(sys_.path("nothing").c_str()).error(), ENOENT);
    EXPECT_FALSE(isOpen(port));
}

TEST_F(PortChannelTest, ReceivingFromAnotherChannelClosesTheOneKept) {
    const int port = openAndPark();
    ASSERT_EQ(::write(peer_.borrow(), "x", 1), 1);
    EXPECT_EQ(receiveText(ours_.borrow()), "x");
    EXPECT_FALSE(isOpen(port));
}

TEST_F(PortChannelTest, SendingToAnotherChannelClosesTheOneKept) {
    const int port = openAndPark();
    device_.send(ours_.borrow(), "x");
    EXPECT_FALSE(isOpen(port));
}

TEST_F(PortChannelTest, APortThatHasNotEndedIsReallyClosed) {
    const int port = openTerminal().release();
    ASSERT_EQ(device_.clearStatusFlags(port), 0);
    terminal_.type("ping\n");
    EXPECT_EQ(receiveText(port), "ping\n");
    device_.closeChannel(port);
    EXPECT_FALSE(isOpen(port));
}

TEST_F(PortChannelTest, APortThatEndedWithAnErrorIsReallyClosed) {
    const int port = openAndPark();
    EXPECT_EQ(openTerminal().release(), port);
    // From here on reads from the port fail, as they do on one that was unplugged.
    const DescriptorGuard directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::dup3(directory.borrow(), port, O_CLOEXEC), port);
    EXPECT_EQ(device_.receive(port, buffer_), -1);
    device_.closeChannel(port);
    EXPECT_FALSE(isOpen(port));
}

TEST_F(PortChannelTest, TheDeviceClosesWhatItKeepsAtItsEnd) {
    int port = -1;
    {
        LinuxChannelDevice device(sys_.path());
        auto opened = device.openSerial(terminal_.path().c_str());
        ASSERT_TRUE(opened.ok());
        port = opened.value().release();
        ASSERT_EQ(device.clearStatusFlags(port), 0);
        terminal_.type(endOfInputKey);
        EXPECT_EQ(device.receive(port, buffer_), 0);
        device.closeChannel(port);
        EXPECT_TRUE(isOpen(port));
    }
    EXPECT_FALSE(isOpen(port));
}

}  // namespace
}  // namespace corvane
