#include "commands/exec/captured_output.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

#include "commands/exec/reaper.h"
#include "core/heap.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/own_memory.h"
#include "tests/unit/commands/exec/exec_status_fixture.h"

namespace corvane {
namespace {

/// The kernel's limits on the address space don't go with the sanitizers' own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

class CapturedOutput : public ExecStatusFixture {
 protected:
    /// A child of ours that writes to the capture files of a new record.
    ProcessRecord& start(const std::function<void(const ProcessRecord&)>& body) {
        ProcessRecord& record = rememberCapturing(nobodysPid);
        const std::lock_guard lock(processTableLock);
        const pid_t pid = ::fork();
        if (pid == 0) {
            body(record);
            ::_exit(0);
        }
        record.pid = pid;
        processTable[pid] = std::move(processTable[nobodysPid]);
        processTable.erase(nobodysPid);
        return record;
    }
};

/// One side waits here until the other one has come by.
class Gate {
 public:
    Gate() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        reader_ = DescriptorGuard(ends[0]);
        writer_ = DescriptorGuard(ends[1]);
    }
    void open() const { writeAll(writer_.borrow(), "."); }
    void wait() const {
        char byte = 0;
        [[maybe_unused]] const ssize_t count = ::read(reader_.borrow(), &byte, 1);
    }

 private:
    DescriptorGuard reader_;
    DescriptorGuard writer_;
};

/// Bytes of all values.
std::string mixedBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

TEST_F(CapturedOutput, GrowsFromPollToPollWhileTheProgramRuns) {
    const Gate written;
    const Gate goOn;
    const pid_t pid = start([&](const ProcessRecord& record) {
                          for (const char* text : {"a", "b"}) {
                              writeAll(record.outFd, text);
                              written.open();
                              goOn.wait();
                          }
                      }).pid;
    written.wait();
    EXPECT_EQ(pollText(pid), R"({"return":{"exited":false,"out-data":"YQ==","err-data":""}})");
    goOn.open();
    written.wait();
    EXPECT_EQ(pollText(pid), R"({"return":{"exited":false,"out-data":"YWI=","err-data":""}})");
    EXPECT_EQ(pollText(pid), R"({"return":{"exited":false,"out-data":"YWI=","err-data":""}})");
    goOn.open();
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    drainEndedChildren();
    EXPECT_EQ(pollText(pid),
              R"({"return":{"exited":true,"out-data":"YWI=","err-data":"","exitcode":0}})");
}

/// The whole output of the program below, in lines of eight bytes.
std::string numberedLines() {
    std::string lines;
    for (int number = 0; number < 128 * 1024; ++number) {
        lines += std::to_string(10000000 + number).substr(1) + "\n";
    }
    return lines;
}

TEST_F(CapturedOutput, PollsDoNotDisturbAProgramThatWritesAtTheSameTime) {
    const std::string lines = numberedLines();
    const pid_t pid = start([&](const ProcessRecord& record) {
                          for (std::size_t at = 0; at < lines.size(); at += 8) {
                              writeAll(at % 3 == 0 ? record.outFd : record.errFd,
                                       std::string_view(lines).substr(at, 8));
                          }
                      }).pid;
    std::string out;
    std::string err;
    for (std::size_t at = 0; at < lines.size(); at += 8) {
        (at % 3 == 0 ? out : err).append(lines, at, 8);
    }
    int polls = 0;
    for (bool exited = false; !exited; ++polls) {
        const JsonValue response = poll(pid);
        exited = numberOf(memberOf(memberOf(response, "return"), "exited")).asBoolean();
        const std::string soFar = bytesOf(response, "out-data");
        const std::string errorsSoFar = bytesOf(response, "err-data");
        ASSERT_TRUE(out.starts_with(soFar)) << "poll " << polls;
        ASSERT_TRUE(err.starts_with(errorsSoFar)) << "poll " << polls;
        if (exited) {
            EXPECT_EQ(soFar.size(), out.size());
            EXPECT_EQ(errorsSoFar.size(), err.size());
        }
        drainEndedChildren();
    }
    EXPECT_GT(polls, 1);
    RecordProperty("polls", polls);
}

TEST_F(CapturedOutput, OffsetStaysWhereItIs) {
    const ProcessRecord& record = rememberCapturing(nobodysPid);
    writeAll(record.outFd, "0123456789");
    for (const off_t offset : {0, 4, 10, 1000}) {
        ASSERT_EQ(::lseek(record.outFd, offset, SEEK_SET), offset);
        EXPECT_EQ(bytesOf(poll(nobodysPid), "out-data"), "0123456789");
        EXPECT_EQ(::lseek(record.outFd, 0, SEEK_CUR), offset);
    }
}

/// From here on the system refuses to move a file offset. See seccomp(2).
bool refuseToSeek() {
    std::array<sock_filter, 4> filter = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_lseek, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(CapturedOutput, OffsetIsNotMovedForAMomentEither) {
    const ProcessRecord& record = rememberCapturing(nobodysPid);
    writeAll(record.outFd, "a");
    EXPECT_EQ(exitStatusOf([&] {
                  const bool refused =
                      refuseToSeek() && ::lseek(record.outFd, 0, SEEK_SET) < 0 && errno == EPERM;
                  const bool told = bytesOf(poll(nobodysPid), "out-data") == "a";
                  ::_exit(!refused ? 2 : told ? 0 : 1);
              }),
              0);
}

TEST_F(CapturedOutput, IsExactAtEverySizeAroundAPiece) {
    constexpr std::size_t piece = std::size_t{48} * 1024;
    const std::string bytes = mixedBytes(3 * piece);
    for (const std::size_t around : {std::size_t{2}, piece, 2 * piece}) {
        for (std::size_t size = around - 2; size <= around + 4; ++size) {
            ProcessRecord& record = rememberCapturing(nobodysPid);
            writeAll(record.outFd, std::string_view(bytes).substr(0, size));
            writeAll(record.errFd, std::string_view(bytes).substr(7, size));
            end(record, 0);
            const JsonValue response = poll(nobodysPid);
            EXPECT_TRUE(bytesOf(response, "out-data") == bytes.substr(0, size)) << size;
            EXPECT_TRUE(bytesOf(response, "err-data") == bytes.substr(7, size)) << size;
        }
    }
}

TEST_F(CapturedOutput, OfManyMegabytesIsExact) {
    const std::string bytes = mixedBytes(std::size_t{20} * 1024 * 1024 + 1);
    ProcessRecord& record = rememberCapturing(nobodysPid);
    writeAll(record.outFd, bytes);
    end(record, 0);
    EXPECT_TRUE(bytesOf(poll(nobodysPid), "out-data") == bytes);
    EXPECT_TRUE(platform_.systemLog.status().empty());
}

TEST_F(CapturedOutput, ThatCannotBeReadIsEmptyAndTheRestIsToldNonetheless) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    writeAll(ends[1], "in a pipe");
    constexpr int neverOpened = 1000000;
    const std::string path = platform_.privateDirectory.prepare().value() + "/write-only";
    const DescriptorGuard writeOnly(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    writeAll(writeOnly.borrow(), "text");

    for (const int unreadable : {ends[0], neverOpened, writeOnly.borrow(), -1}) {
        ProcessRecord& record = rememberCapturing(nobodysPid);
        writeAll(record.errFd, "a");
        ::close(record.outFd);
        record.outFd = unreadable;
        EXPECT_EQ(pollText(nobodysPid),
                  R"({"return":{"exited":false,"out-data":"","err-data":"YQ=="}})");
        std::swap(record.outFd, record.errFd);
        EXPECT_EQ(pollText(nobodysPid),
                  R"({"return":{"exited":false,"out-data":"YQ==","err-data":""}})");
        ::close(record.outFd);
        record.outFd = -1;
        record.errFd = -1;
        end(record, 7 << 8);
        EXPECT_EQ(pollText(nobodysPid),
                  R"({"return":{"exited":true,"out-data":"","err-data":"","exitcode":7}})");
    }
    ::close(ends[0]);
    ::close(ends[1]);
}

/// A program may empty its output file at any time, between two pieces or within one.
TEST_F(CapturedOutput, OfAFileThatShrinksIsWhatWasThere) {
    constexpr std::size_t size = 400000;
    const ProcessRecord& record = rememberCapturing(nobodysPid);
    std::atomic<bool> ending = false;
    std::thread shrinker([&] {
        const std::string bytes(size, 'x');
        while (!ending) {
            ASSERT_EQ(::pwrite(record.outFd, bytes.data(), size, 0), ssize_t{size});
            ASSERT_EQ(::ftruncate(record.outFd, 0), 0);
        }
    });
    for (int round = 0; round < 500; ++round) {
        const std::string bytes = bytesOf(poll(nobodysPid), "out-data");
        EXPECT_LE(bytes.size(), size);
    }
    ending = true;
    shrinker.join();
    EXPECT_TRUE(platform_.systemLog.status().empty());
}

constexpr char notHeld[] = R"({"return":{"exited":true,"out-data":"","err-data":"YQ==",)"
                           R"("exitcode":5}})";

std::string logLine(std::uint64_t size) {
    return "Memory does not suffice for captured output of " + std::to_string(size) + " bytes.\n";
}

TEST_F(CapturedOutput, OfMoreThanTheMachineHasIsEmptyAndTheEndIsToldNonetheless) {
    constexpr off_t size = off_t{1} << 40;
    ProcessRecord& record = rememberCapturing(nobodysPid);
    const std::string path = record.outPath;
    ASSERT_EQ(::ftruncate(record.outFd, size), 0);
    writeAll(record.errFd, "a");
    EXPECT_EQ(pollText(nobodysPid),
              R"({"return":{"exited":false,"out-data":"","err-data":"YQ=="}})");
    EXPECT_EQ(platform_.systemLog.status(), std::vector<std::string>{logLine(1099511627776)});
    end(record, 5 << 8);
    EXPECT_EQ(pollText(nobodysPid), notHeld);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(CapturedOutput, OfTheLargestSizeThatThereIsOverflowsNothing) {
    constexpr off_t largest = std::numeric_limits<off_t>::max();
    // The text of the second one is 2^63 characters long.
    for (const off_t size : {largest, off_t{3} << 61U, largest / 2, largest / 4}) {
        ProcessRecord& record = rememberCapturing(nobodysPid);
        ::close(record.outFd);
        record.outFd = ::memfd_create("output", MFD_CLOEXEC);
        ASSERT_EQ(::ftruncate(record.outFd, size), 0);
        writeAll(record.errFd, "a");
        end(record, 5 << 8);
        EXPECT_EQ(pollText(nobodysPid), notHeld) << size;
        EXPECT_EQ(platform_.systemLog.status().back(), logLine(static_cast<std::uint64_t>(size)));
    }
}

/// Leaves room for so much more in the address space of this process, and none in its heap.
void limitAddressSpace(std::size_t room) {
    limitHeap();
    trimHeap();
    const rlim_t most = ownMemory("VmSize") + room;
    const rlimit limit{most, most};
    ::setrlimit(RLIMIT_AS, &limit);
}

constexpr std::size_t mebibyte = std::size_t{1} << 20U;

TEST_F(CapturedOutput, ThatTheProcessMayNotHoldIsEmptyAndTheEndIsToldNonetheless) {
    if (sanitized) {
        GTEST_SKIP() << "a limit of the address space does not go with sanitizers";
    }
    ProcessRecord& record = rememberCapturing(nobodysPid);
    writeAll(record.outFd, std::string(16 * mebibyte, 'x'));
    writeAll(record.errFd, "a");
    end(record, 5 << 8);
    EXPECT_EQ(exitStatusOf([&] {
                  limitAddressSpace(20 * mebibyte);  // the text takes 21 MiB
                  ::_exit(pollText(nobodysPid) == notHeld ? 0 : 1);
              }),
              0);
}

TEST_F(CapturedOutput, TheProcessMustHoldOnlyOnceAndTheFirstStreamsBeforeTheSeconds) {
    if (sanitized) {
        GTEST_SKIP() << "a limit of the address space does not go with sanitizers";
    }
    ProcessRecord& record = rememberCapturing(nobodysPid);
    const std::string bytes(12 * mebibyte, 'x');
    writeAll(record.outFd, bytes);
    writeAll(record.errFd, bytes);
    end(record, 5 << 8);
    EXPECT_EQ(
        exitStatusOf([&] {
            limitAddressSpace(24 * mebibyte);  // each text takes 16 MiB
            const JsonValue response = poll(nobodysPid);
            const JsonLine line(response, "", "\n");
            const JsonValue& result = memberOf(response, "return");
            const bool held = stringOf(memberOf(result, "out-data")).size() == 16 * mebibyte;
            const bool left = stringOf(memberOf(result, "err-data")).empty();
            ::_exit(held && left && line.pieces().back().ends_with("\"exitcode\":5}}\n") ? 0 : 1);
        }),
        0);
}

}  // namespace
}  // namespace corvane
