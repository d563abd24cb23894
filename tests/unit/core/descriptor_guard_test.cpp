#include "core/descriptor_guard.h"

#include <fcntl.h>
#include <unistd.h>

#include <type_traits>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"

namespace corvane {
namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

int openNull() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

static_assert(!std::is_copy_constructible_v<DescriptorGuard>);
static_assert(!std::is_convertible_v<int, DescriptorGuard>);
static_assert(!std::is_convertible_v<DescriptorGuard, int>);

TEST(DescriptorGuard, ClosesAnOwnedDescriptorAtTheEndOfItsScope) {
    const int descriptor = openNull();
    { const DescriptorGuard guard(descriptor); }
    EXPECT_FALSE(isOpen(descriptor));
}

TEST(DescriptorGuard, LeavesADescriptorOpenThatItDoesNotOwn) {
    const DescriptorGuard owner(openNull());
    { const DescriptorGuard guard(owner.borrow(), false); }
    EXPECT_TRUE(isOpen(owner.borrow()));
}

TEST(DescriptorGuard, NeverClosesDescriptorZero) {
    const int status = exitStatusOf([] {
        ::dup2(openNull(), 0);
        { const DescriptorGuard guard(0); }
        ::_exit(isOpen(0) ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
}

TEST(DescriptorGuard, ClosesOnceWhenItIsMovedAlong) {
    const int descriptor = openNull();
    DescriptorGuard first(descriptor);
    DescriptorGuard second(std::move(first));
    DescriptorGuard third;
    third = std::move(second);
    EXPECT_EQ(third.borrow(), descriptor);
    EXPECT_TRUE(isOpen(descriptor));
    third.closeNow();
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_TRUE(third.empty());
}

TEST(DescriptorGuard, ClosesWhatItHeldWhenAnotherIsMovedIntoIt) {
    const int replaced = openNull();
    DescriptorGuard guard(replaced);
    guard = DescriptorGuard(openNull());
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_TRUE(isOpen(guard.borrow()));
}

TEST(DescriptorGuard, ReleasedDescriptorsStayOpen) {
    int descriptor = -1;
    {
        DescriptorGuard guard(openNull());
        descriptor = guard.release();
    }
    EXPECT_TRUE(isOpen(descriptor));
    ::close(descriptor);
}

}  // namespace
}  // namespace corvane
