#include "platform/linux/queued_log.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/heap.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/own_memory.h"

namespace corvane {
namespace {

bool blocks(const sigset_t& mask, int signal) {
    return ::sigismember(&mask, signal) == 1;
}

sigset_t ownMask() {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

/// What a sink is told, and a gate that holds it up. Both outlive the log under test.
class SinkRecord {
 public:
    void shut() { set(open_, false); }
    void open() { set(open_, true); }

    /// Returns once the sink stands before the shut gate.
    void awaitHeldEntry() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return held_; });
    }
    std::vector<std::string> awaitEntries(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return entries_.size() >= count; });
        return entries_;
    }
    std::vector<std::string> awaitEndOfSink() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return ended_; });
        return entries_;
    }
    sigset_t mask() {
        const std::lock_guard lock(mutex_);
        return mask_;
    }

    int policy() {
        const std::lock_guard lock(mutex_);
        return policy_;
    }

    void take(LogCategory category, std::string_view text) {
        std::unique_lock lock(mutex_);
        mask_ = ownMask();
        policy_ = ::sched_getscheduler(0);
        held_ = !open_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        entries_.push_back((category == LogCategory::status ? "S:" : "T:") + std::string(text));
        changed_.notify_all();
    }
    void end() { set(ended_, true); }

 private:
    void set(bool& flag, bool value) {
        const std::lock_guard lock(mutex_);
        flag = value;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = true;
    bool ended_ = false;
    bool held_ = false;
    sigset_t mask_{};
    int policy_ = -1;
    std::vector<std::string> entries_;
};

class RecordingSink final : public SystemLog {
 public:
    explicit RecordingSink(SinkRecord& record) : record_(record) {}
    ~RecordingSink() override { record_.end(); }
    RecordingSink(const RecordingSink&) = delete;
    RecordingSink& operator=(const RecordingSink&) = delete;

    void createCategories(const char* identifier) override {
        record_.take(LogCategory::status, std::string("created for ") + identifier);
    }
    bool records(LogCategory category) const override { return category == LogCategory::status; }
    void write(LogCategory category, std::string_view text) noexcept override {
        record_.take(category, text);
    }

 private:
    SinkRecord& record_;
};

/// A log over a recording sink. The first entry of the record tells of its creation.
class QueuedLogTest : public testing::Test {
 protected:
    QueuedLogTest() : log_(std::make_unique<QueuedLog>(std::make_unique<RecordingSink>(record_))) {}
    /// The thread ends before the record does.
    ~QueuedLogTest() override {
        record_.open();
        log_.reset();
        record_.awaitEndOfSink();
    }

    /// Shuts the gate and has the sink stand before it with the entry "held".
    void holdSink() {
        log_->createCategories("corvane");
        record_.shut();
        log_->write(LogCategory::status, "held");
        record_.awaitHeldEntry();
    }

    SinkRecord record_;
    std::unique_ptr<QueuedLog> log_;
};

std::vector<std::string> numbered(const std::string& prefix, int count) {
    std::vector<std::string> texts;
    for (int number = 0; number < count; ++number) {
        texts.push_back(prefix + std::to_string(number));
    }
    return texts;
}

TEST_F(QueuedLogTest, EntriesArriveInTheOrderInWhichTheyWereWritten) {
    log_->createCategories("corvane");
    for (const std::string& text : numbered("", 1000)) {
        log_->write(LogCategory::transactions, text);
    }
    auto expected = numbered("T:", 1000);
    expected.insert(expected.begin(), "S:created for corvane");
    EXPECT_EQ(record_.awaitEntries(1001), expected);
}

TEST_F(QueuedLogTest, EveryThreadsEntriesStayInOrder) {
    log_->createCategories("corvane");
    std::vector<std::thread> writers;
    for (const char* name : {"a", "b", "c"}) {
        writers.emplace_back([this, name] {
            for (const std::string& text : numbered(name, 500)) {
                log_->write(LogCategory::status, text);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const auto entries = record_.awaitEntries(1501);
    for (const char* name : {"a", "b", "c"}) {
        const std::string prefix = std::string("S:") + name;
        std::vector<std::string> own;
        std::copy_if(entries.begin(), entries.end(), std::back_inserter(own),
                     [&](const std::string& entry) { return entry.starts_with(prefix); });
        own.erase(std::remove(own.begin(), own.end(), "S:created for corvane"), own.end());
        EXPECT_EQ(own, numbered(prefix, 500));
    }
}

TEST_F(QueuedLogTest, EntriesBeforeTheCategoriesAreMadeWaitForThem) {
    log_->write(LogCategory::status, "early");
    log_->createCategories("corvane");
    EXPECT_EQ(record_.awaitEntries(2),
              (std::vector<std::string>{"S:created for corvane", "S:early"}));
}

TEST_F(QueuedLogTest, ASinkThatDoesNotReturnHoldsNoWriterAndTheLossIsTold) {
    holdSink();
    constexpr std::size_t written = 10000;
    const std::string rest(1000, '.');
    for (const std::string& text : numbered("", written)) {
        log_->write(LogCategory::status, text + rest);
    }
    record_.open();
    const std::string told = record_.awaitEntries(3)[2];
    ASSERT_TRUE(told.starts_with("S:Log entries lost: ")) << told;
    const std::size_t lost = std::stoul(told.substr(told.find_last_of(' ')));
    const std::size_t kept = written - lost;
    EXPECT_GT(kept * rest.size(), QueuedLog::capacity / 2);
    EXPECT_LT(kept * rest.size(), QueuedLog::capacity);

    log_->write(LogCategory::status, "later");
    const auto entries = record_.awaitEntries(kept + 4);
    for (std::size_t number = 0; number < kept; ++number) {
        ASSERT_EQ(entries[number + 3], "S:" + std::to_string(number) + rest);
    }
    EXPECT_EQ(entries.back(), "S:later");
}

TEST_F(QueuedLogTest, EntriesWithoutTextTakeUpRoomToo) {
    holdSink();
    for (std::size_t room = 0; room < QueuedLog::capacity; room += 16) {
        log_->write(LogCategory::status, "");
    }
    record_.open();
    const std::string told = record_.awaitEntries(3)[2];
    ASSERT_TRUE(told.starts_with("S:Log entries lost: ")) << told;
}

TEST_F(QueuedLogTest, ALongEntryPassesAnEmptyQueue) {
    const std::string text(2 * QueuedLog::capacity, 'x');
    log_->write(LogCategory::status, text);
    log_->createCategories("corvane");
    EXPECT_EQ(record_.awaitEntries(2)[1], "S:" + text);
}

TEST_F(QueuedLogTest, AnEntryThatMemoryDoesNotSufficeForIsLostAndTold) {
    log_->createCategories("corvane");
    log_->write(LogCategory::status, std::string_view("", std::string_view::npos / 2 + 1));
    EXPECT_EQ(record_.awaitEntries(2)[1], "S:Log entries lost: 1\n");
    log_->write(LogCategory::status, "next");
    EXPECT_EQ(record_.awaitEntries(3)[2], "S:next");
}

TEST_F(QueuedLogTest, AsksTheSinkWhatItRecordsAlsoWhileItHangs) {
    EXPECT_TRUE(log_->records(LogCategory::status));
    holdSink();
    EXPECT_TRUE(log_->records(LogCategory::status));
    EXPECT_FALSE(log_->records(LogCategory::transactions));
}

TEST_F(QueuedLogTest, EndDeliversWhatIsQueued) {
    log_->createCategories("corvane");
    for (const std::string& text : numbered("", 1000)) {
        log_->write(LogCategory::status, text);
    }
    log_.reset();
    EXPECT_EQ(record_.awaitEndOfSink().size(), 1001U);
}

TEST_F(QueuedLogTest, WhatComesAfterItsEndIsNotWritten) {
    log_->createCategories("corvane");
    log_->write(LogCategory::status, "before");
    log_->finish();
    log_->write(LogCategory::status, "after");
    log_->finish();
    log_.reset();
    EXPECT_EQ(record_.awaitEndOfSink(),
              (std::vector<std::string>{"S:created for corvane", "S:before"}));
}

TEST_F(QueuedLogTest, EndDoesNotWaitForASinkThatHangsAndLeavesItWhole) {
    holdSink();
    log_->write(LogCategory::status, "queued");
    log_.reset();
    record_.open();
    EXPECT_EQ(record_.awaitEndOfSink(),
              (std::vector<std::string>{"S:created for corvane", "S:held", "S:queued"}));
}

TEST_F(QueuedLogTest, ItsThreadHasAllSignalsBlockedAndTheCallersMaskStays) {
    const sigset_t before = ownMask();
    log_->createCategories("corvane");
    log_->write(LogCategory::status, "text");
    record_.awaitEntries(2);
    const sigset_t mask = record_.mask();
    const sigset_t after = ownMask();
    const auto check = [&](int signal) {
        EXPECT_TRUE(blocks(mask, signal)) << signal;
        EXPECT_EQ(blocks(after, signal), blocks(before, signal)) << signal;
    };
    for (int signal = 1; signal < 32; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) {
            check(signal);
        }
    }
    for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) {
        check(signal);
    }
}

TEST_F(QueuedLogTest, ItsThreadTakesNoProcessorFromOthersWhenItIsWoken) {
    const int before = ::sched_getscheduler(0);
    log_->createCategories("corvane");
    log_->write(LogCategory::status, "text");
    record_.awaitEntries(2);
    EXPECT_EQ(record_.policy(), SCHED_BATCH);
    EXPECT_EQ(::sched_getscheduler(0), before);
}

/// While it lives no thread can be started that takes the process's defaults.
class NoThreads {
 public:
    NoThreads() {
        ::pthread_getattr_default_np(&usual_);
        pthread_attr_t unfit;
        ::pthread_attr_init(&unfit);
        ::pthread_attr_setstacksize(&unfit, std::size_t{1} << 60U);
        ::pthread_setattr_default_np(&unfit);
        ::pthread_attr_destroy(&unfit);
        pthread_t thread{};
        const auto doNothing = [](void* argument) { return argument; };
        EXPECT_NE(::pthread_create(&thread, nullptr, doNothing, nullptr), 0);
    }
    ~NoThreads() {
        EXPECT_EQ(::pthread_setattr_default_np(&usual_), 0);
        ::pthread_attr_destroy(&usual_);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

 private:
    pthread_attr_t usual_{};
};

TEST_F(QueuedLogTest, AThreadThatCannotBeStartedIsStartedLater) {
    {
        const NoThreads noThreads;
        log_->createCategories("corvane");
        log_->write(LogCategory::status, "one");
    }
    log_->write(LogCategory::status, "two");
    EXPECT_EQ(record_.awaitEntries(3),
              (std::vector<std::string>{"S:created for corvane", "S:one", "S:two"}));
}

TEST_F(QueuedLogTest, AThreadThatCannotBeStartedIsStartedAtTheEndAtTheLatest) {
    {
        const NoThreads noThreads;
        log_->createCategories("corvane");
        log_->write(LogCategory::status, "why it ends");
    }
    log_->finish();
    EXPECT_EQ(record_.awaitEntries(2),
              (std::vector<std::string>{"S:created for corvane", "S:why it ends"}));
}

TEST_F(QueuedLogTest, WithoutAThreadTheEndComesNonetheless) {
    const NoThreads noThreads;
    log_->createCategories("corvane");
    log_->write(LogCategory::status, "lost");
    log_->finish();
    EXPECT_EQ(record_.awaitEntries(1), std::vector<std::string>{"S:created for corvane"});
}

/// Takes its time, as a daemon does that is behind.
class SlowSink final : public SystemLog {
 public:
    explicit SlowSink(SinkRecord& record) : record_(record) {}
    void createCategories(const char* /*identifier*/) override {}
    bool records(LogCategory /*category*/) const override { return true; }
    void write(LogCategory category, std::string_view text) noexcept override {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        record_.take(category, text);
    }

 private:
    SinkRecord& record_;
};

TEST(QueuedLog, TellsWhyItEndsThoughTheSinkIsBehind) {
    SinkRecord record;
    QueuedLog log(std::make_unique<SlowSink>(record));
    log.createCategories("corvane");
    for (int number = 0; number < 500; ++number) {
        log.write(LogCategory::transactions, "one of many");
    }
    log.write(LogCategory::status, "the reason");
    log.finish();
    const std::vector<std::string> entries = record.awaitEntries(2);
    EXPECT_EQ(entries.back(), "S:the reason");
    EXPECT_EQ(entries.at(entries.size() - 2),
              "S:Log entries lost: " + std::to_string(502 - entries.size()) + "\n");
}

/// Drops what it is told, when it is let.
class DroppingSink final : public SystemLog {
 public:
    explicit DroppingSink(std::mutex& gate) : gate_(gate) {}
    void createCategories(const char* /*identifier*/) override {}
    bool records(LogCategory /*category*/) const override { return true; }
    void write(LogCategory /*category*/, std::string_view /*text*/) noexcept override {
        const std::lock_guard lock(gate_);
    }

 private:
    std::mutex& gate_;
};

TEST(QueuedLog, GivesTheMemoryOfABacklogBackWithoutBeingUsedAgain) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator keeps what was freed";
#endif
    constexpr std::size_t mebibyte = 1U << 20U;
    limitHeap();
    std::mutex gate;
    QueuedLog log(std::make_unique<DroppingSink>(gate));
    log.createCategories("corvane");
    trimHeap();
    const std::size_t before = ownMemory("VmRSS");
    {
        const std::lock_guard shut(gate);
        for (std::size_t size = 0; size < QueuedLog::capacity / 4 * 3; size += 200) {
            log.write(LogCategory::transactions, std::string(150, 'x'));
        }
        ASSERT_GT(ownMemory("VmRSS"), before + 2 * mebibyte)
            << "there would be nothing to give back";
    }
    constexpr std::chrono::seconds hangLimit{20};
    const auto end = std::chrono::steady_clock::now() + hangLimit;
    while (ownMemory("VmRSS") > before + mebibyte && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // for what no event tells of
    }
    EXPECT_LE(ownMemory("VmRSS"), before + mebibyte);
}

TEST(QueuedLog, EndsWithoutEverHavingBeenUsed) {
    SinkRecord record;
    { const QueuedLog log(std::make_unique<RecordingSink>(record)); }
    EXPECT_TRUE(record.awaitEndOfSink().empty());
}

/// The last static to be made is the first to go.
struct OpensAtExit {
    SinkRecord& record;
    ~OpensAtExit() { record.open(); }
};

/// Passes on to standard error.
class PrintingSink final : public SystemLog {
 public:
    explicit PrintingSink(SinkRecord& record) : record_(record) {}
    void createCategories(const char* /*identifier*/) override {}
    bool records(LogCategory /*category*/) const override { return true; }
    void write(LogCategory category, std::string_view text) noexcept override {
        record_.take(category, text);
        static_cast<void>(::write(STDERR_FILENO, text.data(), text.size()) < 0);
    }

 private:
    SinkRecord& record_;
};

TEST(QueuedLog, WhatIsWrittenBeforeTheProcessExitsArrives) {
    testing::internal::CaptureStderr();
    const int status = exitStatusOf([] {
        static SinkRecord record;
        static QueuedLog log(std::make_unique<PrintingSink>(record));
        static const OpensAtExit opensAtExit{record};
        log.createCategories("corvane");
        record.shut();
        log.write(LogCategory::status, "the last words\n");
        std::exit(1);
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "the last words\n");
    EXPECT_EQ(status, 1);
}

TEST(QueuedLog, AProcessExitsWhileTheSinkHangs) {
    const int status = exitStatusOf([] {
        static auto* const record = new SinkRecord;  // the thread has it to the very end
        static QueuedLog log(std::make_unique<PrintingSink>(*record));
        log.createCategories("corvane");
        record->shut();
        log.write(LogCategory::status, "text");
        std::exit(1);
    });
    EXPECT_EQ(status, 1);
}

}  // namespace
}  // namespace corvane
