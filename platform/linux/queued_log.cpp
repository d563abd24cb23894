#include "platform/linux/queued_log.h"

#include <malloc.h>
#include <sched.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <utility>

#include "core/signals_blocked.h"

namespace corvane {
namespace {

constexpr auto patienceForRoom = std::chrono::milliseconds(100);
constexpr auto gatheringTime = std::chrono::milliseconds(10);
constexpr auto patienceAtTheEnd = std::chrono::seconds(1);

struct Entry {
    LogCategory category;
    std::string text;

    [[nodiscard]] std::size_t size() const noexcept { return sizeof(Entry) + text.size(); }
};

/// Only glibc keeps what is free.
void giveMemoryBack() noexcept {
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

}  // namespace

/// The entries that the sink has not taken yet, and the sink.
class QueuedLog::Queue {
 public:
    explicit Queue(std::unique_ptr<SystemLog> sink) : sink_(std::move(sink)) {}

    [[nodiscard]] SystemLog& sink() noexcept { return *sink_; }

    [[nodiscard]] std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }

    /// Takes an entry, or counts it as lost.
    void add(std::unique_lock<std::mutex>& lock, Entry entry) {
        const auto fits = [this, size = entry.size()] {
            return size_ == 0 || size_ + size <= capacity;
        };
        if (!fits()) {
            urgent_ = true;
            work_.notify_one();
        }
        if (!stuck_ && !fits()) {
            stuck_ = !changed_.wait_for(lock, patienceForRoom, fits);
        }
        if (!fits()) {
            addLost();
            return;
        }
        const std::size_t size = entry.size();
        const bool isFirst = entries_.empty();
        const bool wasUrgent = isUrgent();
        urgent_ = urgent_ || entry.category == LogCategory::status;
        entries_.push_back(std::move(entry));
        size_ += size;
        wasBehind_ = wasBehind_ || isBehind();
        if (isFirst || isUrgent() != wasUrgent) {
            work_.notify_one();
        }
    }

    void addLost() noexcept {
        ++lost_;
        work_.notify_one();
    }

    /// Whether all entries have gone to the sink, in time. From a sink that is merely behind the
    /// status entries are still to be had: they say why the process ends.
    bool close(std::unique_lock<std::mutex>& lock) {
        closing_ = true;
        work_.notify_one();
        const auto hasEnded = [this] { return ended_; };
        const std::size_t takenBefore = taken_;
        if (changed_.wait_for(lock, patienceAtTheEnd, hasEnded)) {
            return true;
        }
        if (taken_ == takenBefore) {
            return false;
        }
        dropTransactions();
        return changed_.wait_for(lock, patienceAtTheEnd, hasEnded);
    }

    /// The thread: hands entries to the sink until the queue is closed and empty.
    void run() {
        // The daemon lets the thread go on after each entry when it is behind. That is not to take
        // the processor from a request.
        const sched_param none{};
        ::sched_setscheduler(0, SCHED_BATCH, &none);
        auto lock = this->lock();
        for (;;) {
            work_.wait(lock, [this] { return lost_ > 0 || !entries_.empty() || closing_; });
            // Where requests come in a row, being woken for each of their entries would cost them
            // more than the entries do.
            work_.wait_for(lock, gatheringTime, [this] { return isUrgent(); });
            while (lost_ > 0 || !entries_.empty()) {
                if (lost_ > 0) {
                    tellLost(lock);
                } else {
                    handOver(lock);
                }
            }
            urgent_ = false;
            if (std::exchange(wasBehind_, false)) {
                // The writer's memory is idle by now, and nobody else gives this back.
                lock.unlock();
                giveMemoryBack();
                lock.lock();
            } else if (closing_) {
                break;
            }
        }
        ended_ = true;
        changed_.notify_all();
    }

 private:
    void handOver(std::unique_lock<std::mutex>& lock) {
        Entry entry = std::move(entries_.front());
        entries_.pop_front();
        const std::size_t size = entry.size();
        lock.unlock();
        sink_->write(entry.category, entry.text);
        std::string().swap(entry.text);  // counted until its memory is free
        lock.lock();
        size_ -= size;
        ++taken_;
        noteProgress();
    }

    void tellLost(std::unique_lock<std::mutex>& lock) {
        const std::size_t lost = std::exchange(lost_, 0);
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "Log entries lost: %zu\n", lost);
        lock.unlock();
        sink_->write(LogCategory::status, text.data());
        lock.lock();
        noteProgress();
    }

    void dropTransactions() {
        lost_ += std::erase_if(entries_, [this](const Entry& entry) {
            const bool dropped = entry.category == LogCategory::transactions;
            size_ -= dropped ? entry.size() : 0;
            return dropped;
        });
    }

    /// Whether so much waits that it is worth something by itself.
    [[nodiscard]] bool isBehind() const noexcept { return size_ > capacity / 4; }

    /// Whether the thread is not to wait for more.
    [[nodiscard]] bool isUrgent() const noexcept {
        return urgent_ || lost_ > 0 || closing_ || isBehind();
    }

    void noteProgress() {
        stuck_ = false;
        changed_.notify_all();
    }

    const std::unique_ptr<SystemLog> sink_;
    std::mutex mutex_;                 ///< guards what follows
    std::condition_variable work_;     ///< the thread waits for something to do
    std::condition_variable changed_;  ///< others wait for what the thread has done
    std::deque<Entry> entries_;
    std::size_t size_ = 0;  ///< of the entries, the one in the sink's hands included
    std::size_t lost_ = 0;
    std::size_t taken_ = 0;   ///< by the sink, so far
    bool stuck_ = false;      ///< the sink has taken nothing since an entry waited in vain
    bool urgent_ = false;     ///< there is a status entry, or a writer waits for room
    bool wasBehind_ = false;  ///< since the queue was last empty
    bool closing_ = false;
    bool ended_ = false;
};

QueuedLog::QueuedLog(std::unique_ptr<SystemLog> sink)
    : queue_(std::make_shared<Queue>(std::move(sink))) {}

QueuedLog::~QueuedLog() {
    finish();
}

void QueuedLog::finish() noexcept {
    auto lock = queue_->lock();
    startThread();
    created_ = false;
    if (!thread_.joinable()) {
        return;
    }
    if (queue_->close(lock)) {
        lock.unlock();
        thread_.join();
    } else {
        thread_.detach();
    }
}

void QueuedLog::createCategories(const char* identifier) {
    queue_->sink().createCategories(identifier);
    const auto lock = queue_->lock();
    created_ = true;
    startThread();
}

bool QueuedLog::records(LogCategory category) const {
    return queue_->sink().records(category);
}

void QueuedLog::write(LogCategory category, std::string_view text) noexcept {
    try {
        Entry entry{category, {}};
        entry.text.assign(text);
        auto lock = queue_->lock();
        startThread();
        queue_->add(lock, std::move(entry));
    } catch (const std::exception&) {
        // No memory for the entry.
        const auto lock = queue_->lock();
        queue_->addLost();
    }
}

/// With the lock held.
void QueuedLog::startThread() noexcept {
    if (!created_ || thread_.joinable()) {
        return;
    }
    const SignalsBlocked signalsBlocked;
    try {
        thread_ = std::thread([queue = queue_] { queue->run(); });
    } catch (const std::exception&) {
        // Entries wait in the queue; the next one tries again.
        return;
    }
}

}  // namespace corvane
