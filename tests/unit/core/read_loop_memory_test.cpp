#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "core/channel.h"
#include "core/command_table.h"
#include "core/heap.h"
#include "core/message.h"
#include "core/read_loop.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

JsonValue echo(const JsonObject* arguments) {
    return makeSuccessResponse(*arguments->find("text"));
}

constexpr Command commands[] = {{"echo", echo, 1, ReportCondition::always}};

/// This process's resident memory in bytes. See proc(5), /proc/PID/statm.
std::size_t residentMemory() {
    std::size_t size = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

/// Sends a line and takes its answer in. No memory of its own is used.
void ask(int descriptor, std::string_view line) {
    while (!line.empty()) {
        const ssize_t sent = ::write(descriptor, line.data(), line.size());
        ASSERT_GT(sent, 0);
        line.remove_prefix(static_cast<std::size_t>(sent));
    }
    std::array<char, 65536> buffer;
    ssize_t count = 0;
    do {
        count = ::read(descriptor, buffer.data(), buffer.size());
        ASSERT_GT(count, 0);
    } while (buffer[static_cast<std::size_t>(count) - 1] != '\n');
}

/// Waits until the memory is down to `limit`. False when it does not come to that.
bool memoryComesDownTo(std::size_t limit) {
    constexpr int hangLimit = 10000;  // milliseconds
    for (int waited = 0; waited < hangLimit; ++waited) {
        if (residentMemory() <= limit) {
            return true;
        }
        // Nothing tells of it.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// The loop runs on the main thread here, as in the agent: the allocator gives only what that one
// has used back to the system.
TEST(ReadLoopMemory, WhatLargeMessagesHaveTakenGoesBackWhenNoneFollows) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator keeps what was freed";
#endif
    limitHeap();
    useCommandTable(commands);
    FakePlatform platform;
    platform.systemLog.recording = false;
    openChannel();
    DescriptorGuard host = platform.channelDevice.takeHostEnd();
    constexpr std::size_t mebibyte = 1024 * 1024;
    const std::string line =
        R"({"execute":"echo","arguments":{"text":")" + std::string(2 * mebibyte, 'x') + "\"}}\n";
    trimHeap();
    const std::size_t before = residentMemory();
    bool grew = false;
    bool cameDown = false;
    std::atomic<bool> ended = false;
    std::thread hostThread([&] {
        for (int round = 0; round < 20; ++round) {
            ask(host.borrow(), line);
        }
        grew = residentMemory() > before + 2 * mebibyte;
        cameDown = memoryComesDownTo(before + mebibyte);
        ask(host.borrow(), "[]\n");
        ended = true;
        ask(host.borrow(), "[]\n");
    });
    ReadLoop loop;
    while (!ended) {
        loop.pass();
    }
    hostThread.join();
    EXPECT_TRUE(grew) << "there would be nothing to give back";
    EXPECT_TRUE(cameDown) << residentMemory() - before;
    platform.channelDevice.closeChannel(channelDescriptor());
}

}  // namespace
}  // namespace corvane
