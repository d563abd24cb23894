#include "platform/linux/linux_vsock_sockets.h"

#include <cstring>

#include <gtest/gtest.h>

namespace corvane {
namespace {

// No socket is made here: where the tests run, vsock leads to a real host.

TEST(VsockAddress, CarriesFamilyContextAndPort) {
    const sockaddr_vm address = vsockAddress(2, 1024);
    EXPECT_EQ(address.svm_family, 40);
    EXPECT_EQ(address.svm_cid, 2U);
    EXPECT_EQ(address.svm_port, 1024U);
}

TEST(VsockAddress, TakesPortsAboveSixteenBits) {
    EXPECT_EQ(vsockAddress(2, 4294967294U).svm_port, 4294967294U);
}

TEST(VsockAddress, LeavesEverythingElseZero) {
    sockaddr_vm address = vsockAddress(3, 70000);
    address.svm_family = 0;
    address.svm_cid = 0;
    address.svm_port = 0;
    const sockaddr_vm zero{};
    EXPECT_EQ(std::memcmp(&address, &zero, sizeof zero), 0);
}

}  // namespace
}  // namespace corvane
