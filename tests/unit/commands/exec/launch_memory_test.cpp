#include <sys/wait.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "commands/exec/launch.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/unit/commands/exec/program_run.h"

namespace corvane {
namespace {

class LaunchWithoutMemory : public ProgramTest {
 protected:
    /// Launches `request` with one allocation failing. Whether it did fail.
    static bool launchWithFailure(ExecRequest request, long allocation) {
        failAllocations(allocation, 1);
        try {
            static_cast<void>(launch(std::move(request)));
        } catch (const std::bad_alloc&) {
            return true;
        }
        return stopFailingAllocations() == 0;
    }

    /// Ends what may have been started. The lock must be free.
    static int endPrograms() {
        int ended = 0;
        while (true) {
            std::unique_lock lock(processTableLock);
            if (processTable.empty()) {
                return ended;
            }
            const pid_t pid = processTable.begin()->first;
            lock.unlock();
            EXPECT_EQ(endOf(pid).status, 0);
            ++ended;
        }
    }
};

TEST_F(LaunchWithoutMemory, NothingIsLeftBehindWhicheverAllocationFails) {
    ExecRequest request = shellCommand("cat");
    request.captureOutput = true;
    request.inputData = std::string(1000, 'x');
    request.environment = {{"PATH=/bin", "NAME=" + std::string(100, 'y')}};
    request.workingDirectory = "/" + std::string(100, '/');
    static_cast<void>(launchWithFailure(request, 1000000));
    EXPECT_EQ(endPrograms(), 1);
    const std::size_t before = countDescriptors();
    int failures = 0;
    for (long allocation = 0; launchWithFailure(request, allocation); ++allocation) {
        ++failures;
        EXPECT_TRUE(processTable.empty()) << allocation;
        EXPECT_EQ(countDescriptors(), before) << allocation;
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child that nobody knows of";
    }
    EXPECT_EQ(endPrograms(), 1);
    EXPECT_GT(failures, 20);
}

}  // namespace
}  // namespace corvane
