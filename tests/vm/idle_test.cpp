#include <iostream>
#include <string>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

/// A guest of its own: what an agent does that has never seen a host can be seen only once.
class IdleAgent : public GuestTest {
 protected:
    static void SetUpTestSuite() { guest = bootGuest(); }
    static void TearDownTestSuite() { guest.reset(); }
    void SetUp() override { use(*guest); }

    /// Clock ticks that the agent has used, in and out of the kernel.
    long ticks() {
        return std::stol(shell().check(
            "set -- $(sed 's/.*) //' /proc/$(service pid)/stat); echo $((${12} + ${13}))"));
    }

    /// Start-up is over when a whole second has cost nothing.
    void settle() {
        for (long before = -1, now = ticks(); before != now; now = ticks()) {
            before = now;
            shell().check("sleep 1");
        }
    }

    /// Ten seconds of the guest's clock cost the agent nothing and log nothing.
    void expectSilence() {
        settle();
        const std::size_t start = machine().settleLog();
        const long before = ticks();
        shell().check("sleep 10");
        EXPECT_EQ(ticks() - before, 0);
        const std::string log = machine().log().since(start);
        EXPECT_EQ(log, "");
    }

    static inline std::unique_ptr<VirtualMachine> guest;
};

TEST_F(IdleAgent, UsesNoProcessorTimeAndLogsNothingBeforeItsFirstHost) {
    machine().log().await("Corvane 1.3", 0);
    expectSilence();
}

TEST_F(IdleAgent, UsesNoProcessorTimeAndLogsNothingAfterAHostHasLeft) {
    HostClient host = synchronisedHost();
    host.disconnect();
    awaitLog("The connection has ended.");
    expectSilence();
    EXPECT_EQ(countOf("The connection has ended.", settledLog()), 1U);
}

TEST_F(IdleAgent, HoldsAtMostSixMebibytesOfItsOwn) {
    const long kibibytes =
        std::stol(shell().check("awk '/^Private_(Clean|Dirty)/ { sum += $2 } END { print sum }' "
                                "/proc/$(service pid)/smaps_rollup"));
    std::cout << "private memory of the idle agent: " << kibibytes << " KiB\n";
    RecordProperty("privateKibibytes", static_cast<int>(kibibytes));
    EXPECT_GT(kibibytes, 0);
    EXPECT_LE(kibibytes, 6 * 1024);
}

}  // namespace
}  // namespace corvane::vm
