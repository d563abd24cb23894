#include "platform/linux/finished_connect.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"

namespace corvane {
namespace {

/// Connections over loopback; the kernel's rules for waiting are those of every stream socket.
class ConnectTest : public testing::Test {
 protected:
    ConnectTest()
        : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
          client_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(
            ::bind(listener_.borrow(), reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
        socklen_t length = sizeof address_;
        ::getsockname(listener_.borrow(), reinterpret_cast<sockaddr*>(&address_), &length);
    }

    [[nodiscard]] int connect() const {
        return connectToTheEnd(client_.borrow(), reinterpret_cast<const sockaddr*>(&address_),
                               sizeof address_);
    }

    DescriptorGuard listener_;
    DescriptorGuard client_;
    sockaddr_in address_{};
};

TEST_F(ConnectTest, AListenerIsReached) {
    ASSERT_EQ(::listen(listener_.borrow(), 1), 0);
    EXPECT_EQ(connect(), 0);
    const DescriptorGuard accepted(::accept4(listener_.borrow(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_FALSE(accepted.empty());
    ASSERT_EQ(::write(client_.borrow(), "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(::read(accepted.borrow(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST_F(ConnectTest, ARefusalIsToldByItsNumber) {
    EXPECT_EQ(connect(), ECONNREFUSED);
}

TEST_F(ConnectTest, TheSocketBlocksAgainAfterwards) {
    const int before = ::fcntl(client_.borrow(), F_GETFL);
    EXPECT_EQ(connect(), ECONNREFUSED);
    EXPECT_EQ(::fcntl(client_.borrow(), F_GETFL), before);
    EXPECT_EQ(before & O_NONBLOCK, 0);
}

TEST_F(ConnectTest, ADescriptorThatIsNoneGivesItsError) {
    client_.closeNow();
    EXPECT_EQ(connect(), EBADF);
}

}  // namespace
}  // namespace corvane
