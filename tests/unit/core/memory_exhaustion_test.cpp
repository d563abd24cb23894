#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "core/command_table.h"
#include "core/message.h"
#include "core/read_loop.h"
#include "tests/fakes/allocation_free_services.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"

namespace corvane {
namespace {

const std::string outOfMemoryAnswer = R"({"error":{"class":"GenericError","desc":"out of memory"}})"
                                      "\n";

JsonValue ping() {
    return makeSuccessResponse(JsonObject());
}

constexpr Command commands[] = {{"guest-ping", ping, 1, ReportCondition::always}};

class MemoryExhaustion : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(commands); }
    void TearDown() override { stopFailingAllocations(); }

    /// Runs all pieces with the allocations failing from the `first` one on, `failures` of them.
    /// Returns how many of these have not been made.
    long run(long first, long failures) {
        device_.next = 0;
        device_.sent.clear();
        ReadLoop loop;
        failAllocations(first, failures);
        while (device_.next < device_.pieces.size()) {
            loop.pass();
        }
        return stopFailingAllocations();
    }

    FakePlatform fakes_;
    QuietLog log_;
    PiecewiseDevice device_;
    Platform services_ = platformWith({.systemLog = &log_, .channelDevice = &device_});
    PlatformScope scope_{services_};
};

const std::string pong = R"({"return":{}})"
                         "\n";

TEST_F(MemoryExhaustion, EachAllocationOfARequestMayFailOnceAndTheNextRequestIsServed) {
    const std::string filler(3000, 'x');
    device_.pieces = {R"({"execute":"guest-ping","arguments":{"list":[1,2,{"deep":[true]}],)",
                      R"("text":")" + filler, filler + "\",\"more\":\"" + filler, filler + "\"}}\n",
                      "{\"execute\":\"guest-ping\"}\n"};
    run(0, 0);
    ASSERT_EQ(device_.sent, pong + pong);
    long first = 0;
    for (bool failed = true; failed; ++first) {
        failed = run(first, 1) == 0;
        // Where the failure hit the one or the other line decides which was answered so.
        EXPECT_TRUE(device_.sent == pong + pong || device_.sent == outOfMemoryAnswer + pong ||
                    device_.sent == pong + outOfMemoryAnswer)
            << "allocation " << first << ": " << device_.sent;
    }
    EXPECT_GT(first, 30) << "a request makes more allocations than that";
}

TEST_F(MemoryExhaustion, EachAllocationForAnUnknownCommandMayFailOnce) {
    device_.pieces = {"{\"execute\":\"" + std::string(3000, 'y') + "\"}\n",
                      "{\"execute\":\"guest-ping\"}\n"};
    run(0, 0);
    const std::string regular = device_.sent;
    for (long first = 0;; ++first) {
        if (run(first, 1) != 0) {
            break;
        }
        const bool answered = device_.sent == regular || device_.sent == outOfMemoryAnswer + pong ||
                              device_.sent.ends_with("\n" + outOfMemoryAnswer);
        EXPECT_TRUE(answered) << "allocation " << first << ": " << device_.sent;
    }
}

TEST_F(MemoryExhaustion, LineThatCannotBeCutOffIsAnsweredWithAnErrorAndTheNextIsServed) {
    const std::string filler(8000, 'x');
    device_.pieces.assign(40, filler);
    device_.pieces.emplace_back("\n{\"execute\":\"guest-ping\"}\n");
    run(0, 0);
    const std::string regular = device_.sent;
    ASSERT_TRUE(regular.ends_with("\n" + pong));
    for (long first = 0;; ++first) {
        if (run(first, 1) != 0) {
            break;
        }
        EXPECT_TRUE(device_.sent == regular || device_.sent == outOfMemoryAnswer + pong ||
                    device_.sent.ends_with("\n" + outOfMemoryAnswer))
            << "allocation " << first << ": " << device_.sent.substr(0, 300);
    }
}

TEST_F(MemoryExhaustion, LineThatIsGivenUpIsAnsweredOnceHoweverOftenMemoryIsWanting) {
    const std::string filler(3000, 'x');
    device_.pieces = {"{\"execute\":\"" + filler, filler, "\"}\n{\"execute\":\"guest-ping\"}\n"};
    int ended = 0;
    long first = 0;
    for (bool failed = true; failed; ++first) {
        try {
            failed = run(first, 2) == 0;
        } catch (const std::bad_alloc&) {
            stopFailingAllocations();
            ++ended;  // not even one read can be kept
            continue;
        }
        EXPECT_EQ(std::count(device_.sent.begin(), device_.sent.end(), '\n'), 2)
            << "allocation " << first << ": " << device_.sent;
    }
    EXPECT_LT(ended, 3);
}

TEST_F(MemoryExhaustion, LineThatIsGivenUpTakesNothingOfTheNextHostAlong) {
    device_.pieces = {"{\"execute\":\"guest-pi", "", "{\"execute\":\"guest-ping\"}\n"};
    EXPECT_EQ(run(0, 1), 0);
    EXPECT_EQ(device_.sent, outOfMemoryAnswer + pong);
}

TEST_F(MemoryExhaustion, LogEntryThatMemoryDoesNotSufficeForIsLost) {
    const std::string longText(3000, 'x');
    log_.last = "before";
    failAllocations(0, 1);
    logStatus(false, "%s\n", longText.c_str());
    EXPECT_EQ(stopFailingAllocations(), 0);
    EXPECT_EQ(log_.last, "before");
    logStatus(false, "%s\n", "short");
    EXPECT_EQ(log_.last, "short\n");
}

TEST_F(MemoryExhaustion, WithoutAnyMemoryTheProcessEndsWithStatusOneAndAMessage) {
    device_.pieces = {"\n{\"execute\":\"guest-ping\"}\n"};
    testing::internal::CaptureStderr();
    const int status = exitStatusOf([this] {
        std::atexit([] { stopFailingAllocations(); });
        static QuietLog* log = nullptr;
        log = &log_;
        std::atexit([] {
            stopFailingAllocations();
            std::fwrite(log->last.data(), 1, log->last.size(), stderr);
        });
        ReadLoop loop;
        failAllocations(0, 1000000);
        loop.run();
    });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unhandled exception: 'Error std::bad_alloc: std::bad_alloc'\n");
}

}  // namespace
}  // namespace corvane
