#pragma once

#include <chrono>
#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {

/// Tests at whose end the guest is off, or has started anew. What shows that it went down in order:
/// services were stopped, in their order, and what the host had written is on the disk.
class PowerOffTest : public DebianTest {
 protected:
    void SetUp() override;

    /// Has the host write a file, which the guest has not stored on its disk yet.
    void writeFile(HostClient& host);
    /// Tests that the guest has gone down in order and QEMU has ended by itself.
    void expectPoweredOffInOrder();
    /// The same for a guest that has started again.
    void expectRestartedInOrder();

    /// Where the time that the guest takes is counted from.
    void startClock() { start_ = std::chrono::steady_clock::now(); }

 private:
    void showTime(const char* what) const;
    std::string expectedOrder() const;

    std::string bytes_;
    std::string round_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace corvane::vm
