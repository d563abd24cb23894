#include "commands/exec/reaper.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/process_table.h"
#include "core/descriptor_guard.h"
#include "tests/fakes/child_process.h"

namespace corvane {
namespace {

/// A child that ends with `status` as soon as its gate is closed by the test.
class GatedChild {
 public:
    explicit GatedChild(int status) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            std::abort();
        }
        gate_ = DescriptorGuard(ends[1]);
        const DescriptorGuard wait(ends[0]);
        pid_ = ::fork();
        if (pid_ == 0) {
            char byte = 0;
            ::close(ends[1]);
            [[maybe_unused]] const ssize_t count = ::read(ends[0], &byte, 1);
            ::_exit(status);
        }
    }

    [[nodiscard]] pid_t pid() const noexcept { return pid_; }
    void open() noexcept { gate_.closeNow(); }

 private:
    DescriptorGuard gate_;
    pid_t pid_ = 0;
};

/// Waits until `pid` has ended, and leaves it to be reaped.
void awaitEnd(pid_t pid) {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}

void remember(pid_t pid) {
    const std::lock_guard lock(processTableLock);
    auto record = std::make_unique<ProcessRecord>();
    record->running = true;
    record->pid = pid;
    processTable[pid] = std::move(record);
}

class Reaper : public testing::Test {
 protected:
    ~Reaper() override {
        const std::lock_guard lock(processTableLock);
        processTable.clear();
    }
};

TEST_F(Reaper, DrainMarksEveryEndedChildWithItsRawStatus) {
    GatedChild first(7);
    GatedChild second(0);
    remember(first.pid());
    remember(second.pid());
    first.open();
    second.open();
    awaitEnd(first.pid());
    awaitEnd(second.pid());
    drainEndedChildren();
    EXPECT_FALSE(processTable.at(first.pid())->running);
    EXPECT_EQ(processTable.at(first.pid())->status, 7 << 8);
    EXPECT_FALSE(processTable.at(second.pid())->running);
    EXPECT_EQ(processTable.at(second.pid())->status, 0);
}

TEST_F(Reaper, DrainLeavesARunningChildAlone) {
    GatedChild child(3);
    remember(child.pid());
    drainEndedChildren();
    EXPECT_TRUE(processTable.at(child.pid())->running);
    child.open();
    awaitEnd(child.pid());
    drainEndedChildren();
    EXPECT_FALSE(processTable.at(child.pid())->running);
}

TEST_F(Reaper, DrainReapsAChildThatNobodyRemembers) {
    GatedChild child(3);
    child.open();
    awaitEnd(child.pid());
    drainEndedChildren();
    EXPECT_TRUE(processTable.empty());
    EXPECT_EQ(::waitpid(child.pid(), nullptr, WNOHANG), -1) << "it has been reaped";
}

TEST_F(Reaper, DrainSkipsAnEntryWithoutARecord) {
    GatedChild child(3);
    {
        const std::lock_guard lock(processTableLock);
        processTable[child.pid()];
    }
    child.open();
    awaitEnd(child.pid());
    drainEndedChildren();
    EXPECT_EQ(processTable.at(child.pid()), nullptr);
    EXPECT_EQ(::waitpid(child.pid(), nullptr, WNOHANG), -1);
}

TEST_F(Reaper, StatusOfASignalIsKeptRaw) {
    GatedChild child(0);
    remember(child.pid());
    ::kill(child.pid(), SIGKILL);
    awaitEnd(child.pid());
    drainEndedChildren();
    EXPECT_EQ(processTable.at(child.pid())->status, SIGKILL);
}

/// Starts `count` children that end at once with status 5, each recorded under the lock.
std::vector<pid_t> startRecordedChildren(int count) {
    std::vector<pid_t> pids;
    for (int child = 0; child < count; ++child) {
        const std::lock_guard lock(processTableLock);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(5);
        }
        auto record = std::make_unique<ProcessRecord>();
        record->running = true;
        record->pid = pid;
        processTable[pid] = std::move(record);
        pids.push_back(pid);
    }
    return pids;
}

bool endedWithFive(pid_t pid) {
    for (;;) {
        siginfo_t info{};  // returns when the child has ended, also when it has been reaped
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        const std::lock_guard lock(processTableLock);
        const ProcessRecord& record = *processTable.at(pid);
        if (!record.running) {
            return record.status == 5 << 8;
        }
    }
}

/// In a process of its own, since the thread lives as long as its process.
TEST_F(Reaper, ThreadReapsChildrenThatEndAtOnceAndNoneBeforeItsRecordIsStored) {
    EXPECT_EQ(exitStatusOf([] {
                  std::thread(reapChildren).detach();
                  const auto pids = startRecordedChildren(200);
                  ::_exit(std::ranges::all_of(pids, endedWithFive) ? 0 : 1);
              }),
              0);
}

/// The agent may exit while children end: the reaper must not touch the table any more.
TEST_F(Reaper, ThreadIsShutOutWhenTheProcessExits) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(exitStatusOf([] {
                      std::thread(reapChildren).detach();
                      startRecordedChildren(20);
                      std::exit(0);
                  }),
                  0);
    }
}

}  // namespace
}  // namespace corvane
