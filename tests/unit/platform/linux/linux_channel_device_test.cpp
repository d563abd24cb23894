#include "platform/linux/linux_channel_device.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <semaphore.h>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/unit/platform/linux/channel_device_fixture.h"
#include "tests/unit/platform/linux/pseudo_terminal.h"

namespace corvane {
namespace {

TEST_F(ChannelDeviceTest, ReceivesWhatThePeerSends) {
    ASSERT_EQ(::write(peer_.borrow(), "ping\n", 5), 5);
    EXPECT_EQ(receiveText(ours_.borrow()), "ping\n");
}

TEST_F(ChannelDeviceTest, APeerThatHasGoneEndsTheInput) {
    peer_.closeNow();
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_), 0);
}

TEST_F(ChannelDeviceTest, ADescriptorThatCannotBeReadIsAnError) {
    const DescriptorGuard directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(device_.receive(directory.borrow(), buffer_), -1);
}

TEST_F(ChannelDeviceTest, AClosedDescriptorIsAnErrorAtOnce) {
    const int closed = ours_.borrow();
    ours_.closeNow();
    EXPECT_EQ(device_.receive(closed, buffer_), -1);
}

TEST_F(ChannelDeviceTest, NoDescriptorIsAnErrorAtOnce) {
    EXPECT_EQ(device_.receive(-1, buffer_), -1);
    device_.send(-1, "nowhere");
    device_.closeChannel(-1);
}

TEST_F(ChannelDeviceTest, ADescriptorThatDoesNotBlockIsWaitedOn) {
    ASSERT_EQ(::fcntl(ours_.borrow(), F_SETFL, O_NONBLOCK), 0);
    std::thread peer([this] { EXPECT_EQ(::write(peer_.borrow(), "ping\n", 5), 5); });
    EXPECT_EQ(receiveText(ours_.borrow()), "ping\n");
    peer.join();
}

TEST_F(ChannelDeviceTest, SilenceEndsAWaitWithALimitAndLosesNothing) {
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(::write(peer_.borrow(), "ping\n", 5), 5);
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_, 1), 5);
    peer_.closeNow();
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_, 1), 0);
}

sem_t signalHandled;

TEST_F(ChannelDeviceTest, SignalsDoNotEndTheWait) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer may keep a signal back until a wait is over that it should end";
#endif
    ASSERT_EQ(::sem_init(&signalHandled, 0, 0), 0);
    struct sigaction action {};
    action.sa_handler = [](int) { ::sem_post(&signalHandled); };  // no SA_RESTART: calls are cut
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

    const pthread_t receiver = ::pthread_self();
    std::thread peer([this, receiver] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        for (int turn = 0; turn < 100; ++turn) {
            ::pthread_kill(receiver, SIGUSR1);
            while (::sem_wait(&signalHandled) != 0) {
            }
        }
        EXPECT_EQ(::write(peer_.borrow(), "ping\n", 5), 5);
    });
    EXPECT_EQ(receiveText(ours_.borrow()), "ping\n");
    peer.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(ChannelDeviceTest, DescriptorsAboveAThousandWorkAsWell) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit before = limit;
    if (limit.rlim_max < 2100) {
        GTEST_SKIP() << "no descriptors above 2000 are allowed here";
    }
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 2100);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    {
        const DescriptorGuard high(::fcntl(ours_.borrow(), F_DUPFD_CLOEXEC, 2000));
        ASSERT_GE(high.borrow(), 2000);
        ASSERT_EQ(::write(peer_.borrow(), "ping\n", 5), 5);
        EXPECT_EQ(receiveText(high.borrow()), "ping\n");
    }
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(ChannelDeviceTest, AWaitThatFailsIsNoEndOfTheInput) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit before = limit;
    limit.rlim_cur = 0;  // more descriptors than may be open cannot be waited on
    // A sanitizer looks at the objects when they are first used, with descriptors.
    ASSERT_EQ(::write(peer_.borrow(), "first\n", 6), 6);
    ASSERT_EQ(receiveText(ours_.borrow()), "first\n");
    ASSERT_EQ(::write(peer_.borrow(), "ping\n", 5), 5);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    pollfd waited{ours_.borrow(), POLLIN, 0};
    const int outcome = ::poll(&waited, 1, 0);
    const ssize_t withoutPatience = device_.receive(ours_.borrow(), buffer_, 0);
    const int error = errno;
    const std::string received = receiveText(ours_.borrow());
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(outcome, -1) << "the wait does not fail";
    EXPECT_EQ(withoutPatience, -1);
    EXPECT_EQ(error, EAGAIN);
    EXPECT_EQ(received, "ping\n");
}

TEST_F(ChannelDeviceTest, ATerminalThatLetsItsReaderGoWithNothingIsWaitedOn) {
    const PseudoTerminal terminal;
    const DescriptorGuard line(::open(terminal.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    ASSERT_EQ(::tcgetattr(line.borrow(), &settings), 0);
    ::cfmakeraw(&settings);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    ASSERT_EQ(::tcsetattr(line.borrow(), TCSANOW, &settings), 0);
    char byte = 0;
    ASSERT_EQ(::read(line.borrow(), &byte, 1), 0) << "it would wait by itself";
    // The reader waits, or is late: either way it must not come back with nothing.
    std::thread writer([&] { terminal.type("ping\n"); });
    EXPECT_EQ(receiveText(line.borrow()), "ping\n");
    writer.join();
}

TEST_F(ChannelDeviceTest, AResponseIsOneWrite) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    const DescriptorGuard sender(ends[0]);
    const DescriptorGuard receiver(ends[1]);
    const std::string response(40000, 'x');
    device_.send(sender.borrow(), response);
    std::string packet(80000, '\0');
    EXPECT_EQ(::read(receiver.borrow(), packet.data(), packet.size()), 40000);
}

TEST_F(ChannelDeviceTest, AResponseInPiecesIsOneWrite) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
    const DescriptorGuard sender(ends[0]);
    const DescriptorGuard receiver(ends[1]);
    const std::string text(40000, 'x');
    const std::array<std::string_view, 3> pieces = {"before", text, "after\n"};
    device_.send(sender.borrow(), pieces);
    std::string packet(80000, '\0');
    const ssize_t count = ::read(receiver.borrow(), packet.data(), packet.size());
    packet.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    EXPECT_EQ(packet, "before" + text + "after\n");
}

TEST_F(ChannelDeviceTest, AnyNumberOfPiecesGoesOutWholeAndInOrder) {
    std::vector<std::string> texts;
    std::string whole;
    for (int number = 0; number < 50; ++number) {
        texts.push_back(std::to_string(number) + ",");
        whole += texts.back();
    }
    for (std::size_t count = 1; count <= texts.size(); ++count) {
        const std::vector<std::string_view> pieces(texts.begin(),
                                                   texts.begin() + static_cast<long>(count));
        device_.send(ours_.borrow(), pieces);
        std::string expected;
        for (const std::string_view piece : pieces) {
            expected += piece;
        }
        std::string received(expected.size(), '\0');
        ASSERT_EQ(::recv(peer_.borrow(), received.data(), received.size(), MSG_WAITALL),
                  static_cast<ssize_t>(expected.size()));
        EXPECT_EQ(received, expected);
    }
}

TEST_F(ChannelDeviceTest, AShortWriteIsNotMadeUpForOnAnOrdinaryChannel) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), 0);
    const DescriptorGuard reader(ends[0]);
    const DescriptorGuard writer(ends[1]);
    const int capacity = ::fcntl(writer.borrow(), F_GETPIPE_SZ);
    device_.send(writer.borrow(), std::string(static_cast<std::size_t>(capacity) * 2, 'x'));
    int pending = 0;
    ASSERT_EQ(::ioctl(reader.borrow(), FIONREAD, &pending), 0);
    EXPECT_EQ(pending, capacity);
}

TEST_F(ChannelDeviceTest, APeerThatHasGoneCostsTheResponseOnly) {
    peer_.closeNow();
    device_.send(ours_.borrow(), "response\n");
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_), 0);
}

TEST_F(ChannelDeviceTest, ClosingAnOrdinaryChannelClosesItsDescriptor) {
    peer_.closeNow();
    EXPECT_EQ(device_.receive(ours_.borrow(), buffer_), 0);
    const int descriptor = ours_.release();
    device_.closeChannel(descriptor);
    EXPECT_FALSE(isOpen(descriptor));
}

TEST_F(SerialChannelTest, ADeviceThatIsNotThereGivesTheKernelsError) {
    EXPECT_EQ(device_.openSerial(sys_.path("nothing").c_str()).error(), ENOENT);
}

TEST_F(SerialChannelTest, IsOpenedForBothDirectionsWithoutBlockingAndCloseOnExec) {
    const DescriptorGuard serial = openTerminal();
    EXPECT_TRUE(doesNotBlock(serial.borrow()));
    EXPECT_EQ(::fcntl(serial.borrow(), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(::fcntl(serial.borrow(), F_GETFD), FD_CLOEXEC);
}

TEST_F(SerialChannelTest, DoesNotBecomeTheControllingTerminal) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::setsid();
        const DescriptorGuard serial = openTerminal();
        const int controlling = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
        ::_exit(!serial.empty() && controlling < 0 && errno == ENXIO ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(SerialChannelTest, ATerminalIsClaimedForExclusiveUse) {
    const DescriptorGuard serial = openTerminal();
    EXPECT_EQ(device_.claimExclusive(serial.borrow()), 0);
    int exclusive = 0;
    ASSERT_EQ(::ioctl(serial.borrow(), TIOCGEXCL, &exclusive), 0);
    EXPECT_EQ(exclusive, 1);
}

TEST_F(SerialChannelTest, ADeviceThatIsNeitherTerminalNorPortCannotBeClaimed) {
    auto null = device_.openSerial("/dev/null");
    ASSERT_TRUE(null.ok());
    EXPECT_EQ(device_.claimExclusive(null.value().borrow()), ENOTTY);
}

TEST_F(SerialChannelTest, ClearingTheFlagsMakesItBlock) {
    const DescriptorGuard serial = openTerminal();
    EXPECT_EQ(device_.clearStatusFlags(serial.borrow()), 0);
    EXPECT_FALSE(doesNotBlock(serial.borrow()));
    EXPECT_EQ(device_.clearStatusFlags(-1), EBADF);
}

TEST_F(SerialChannelTest, ATerminalWhoseInputHasEndedIsReallyClosed) {
    const int serial = openTerminal().release();
    ASSERT_EQ(device_.clearStatusFlags(serial), 0);
    terminal_.type(endOfInputKey);
    EXPECT_EQ(device_.receive(serial, buffer_), 0);
    device_.closeChannel(serial);
    EXPECT_FALSE(isOpen(serial));
}

}  // namespace
}  // namespace corvane
