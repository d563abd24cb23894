#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
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
#include "tests/fakes/own_memory.h"

namespace corvane {
namespace {

JsonValue echo(const JsonObject* arguments) {
    return makeSuccessResponse(*arguments->find("text"));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

bool listWasMade = false;

/// More than `hugeMessage` in pieces that the heap holds one by one.
JsonValue makeList() {
    listWasMade = true;
    JsonArray list;
    for (std::size_t size = 0; size < 2 * hugeMessage; size += 100) {
        list.emplace_back(std::string(100, 'x'));
    }
    return makeSuccessResponse(std::move(list));
}

constexpr Command commands[] = {{"echo", echo, 1, ReportCondition::always},
                                {"list", makeList, 2, ReportCondition::always}};

/// Waits until the memory is down to `limit`, and does something all the while. False when it does
/// not come to that.
template <typename Action>
bool memoryComesDownTo(std::size_t limit, Action action) {
    constexpr std::chrono::seconds hangLimit{20};
    const auto end = std::chrono::steady_clock::now() + hangLimit;
    while (ownMemory("VmRSS") > limit) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        action();
    }
    return true;
}

// The loop runs on the main thread here, as in the agent: the allocator gives only what that one
// has used back to the system.
class ReadLoopMemory : public testing::Test {
 protected:
    void SetUp() override {
        if (sanitized) {
            GTEST_SKIP() << "a sanitizer's allocator keeps what was freed";
        }
        limitHeap();
        useCommandTable(commands);
        platform_.systemLog.recording = false;
        openChannel();
        host_ = platform_.channelDevice.takeHostEnd();
    }
    void TearDown() override {
        if (!sanitized) {
            platform_.channelDevice.closeChannel(channelDescriptor());
        }
    }

    /// Asks large requests, then does `action` until the memory has come back.
    void expectMemoryBack(const std::function<void()>& once, const std::function<void()>& action) {
        constexpr std::size_t mebibyte = 1024 * 1024;
        const std::string line = R"({"execute":"echo","arguments":{"text":")" +
                                 std::string(2 * mebibyte, 'x') + "\"}}\n";
        trimHeap();
        const std::size_t before = ownMemory("VmRSS");
        bool grew = false;
        bool cameDown = false;
        std::atomic<bool> ended = false;
        std::thread hostThread([&] {
            for (int round = 0; round < 20; ++round) {
                ask(line);
            }
            grew = ownMemory("VmRSS") > before + 2 * mebibyte;
            once();
            cameDown = memoryComesDownTo(before + mebibyte, action);
            ended = true;
            tell("\n");  // ends the loop's wait
        });
        ReadLoop loop;
        while (!ended) {
            loop.pass();
        }
        hostThread.join();
        EXPECT_TRUE(grew) << "there would be nothing to give back";
        EXPECT_TRUE(cameDown) << ownMemory("VmRSS") - before;
    }

    void tell(std::string_view line) const {
        while (!line.empty()) {
            const ssize_t sent = ::write(host_.borrow(), line.data(), line.size());
            ASSERT_GT(sent, 0);
            line.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    /// Sends a line and takes its answer in. No memory of its own is used.
    void ask(std::string_view line) const {
        tell(line);
        std::array<char, 65536> buffer;
        ssize_t count = 0;
        do {
            count = ::read(host_.borrow(), buffer.data(), buffer.size());
            ASSERT_GT(count, 0);
        } while (buffer[static_cast<std::size_t>(count) - 1] != '\n');
    }

    FakePlatform platform_;
    DescriptorGuard host_;
};

/// For what no event tells of.
void waitAMoment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void doNothing() {}

TEST_F(ReadLoopMemory, OfLargeMessagesGoesBackWhenNoneFollows) {
    expectMemoryBack(doNothing, waitAMoment);
}

TEST_F(ReadLoopMemory, OfLargeMessagesGoesBackWhileTheHostGoesOnAsking) {
    expectMemoryBack(doNothing, [this] {
        ask("{\"execute\":\"echo\",\"arguments\":{\"text\":1}}\n");
        waitAMoment();  // the fakes keep a note of everything
    });
}

TEST_F(ReadLoopMemory, OfAHugeAnswerGoesBackBeforeTheLoopWaitsAgain) {
    trimHeap();
    const std::size_t before = ownMemory("VmRSS");
    std::thread hostThread([this] { ask("{\"execute\":\"list\"}\n"); });
    ReadLoop loop;
    while (!listWasMade) {
        loop.pass();
    }
    hostThread.join();
    EXPECT_LT(ownMemory("VmRSS"), before + 2 * 1024 * 1024);
}

TEST_F(ReadLoopMemory, OfLargeMessagesGoesBackWhileALineIsUnfinished) {
    expectMemoryBack([this] { tell("{"); }, waitAMoment);
}

}  // namespace
}  // namespace corvane
