#pragma once

#include <memory>
#include <thread>

#include "platform/system_log.h"

namespace corvane {

/// A system log that never holds up who writes to it. The logs of the system may block for as long
/// as their daemons hang; here only a thread of its own, with all signals blocked, writes to the
/// sink. Entries reach it in the order in which they were written, those of transactions within
/// some milliseconds, so that the thread is not woken for each.
///
/// Entries wait in a queue of about `capacity` bytes; a longer one is taken when all before it are
/// done. When there is no room, write() waits a tenth of a second for it and then drops the entry,
/// the ones after it at once, until the sink has taken another. What was lost is then told first,
/// in a status entry.
///
/// Entries written before createCategories() wait for it.
///
/// Not for forked children: the thread is not among what they inherit, the lock may be held there.
class QueuedLog final : public SystemLog {
 public:
    static constexpr std::size_t capacity = 4U << 20U;  ///< what an entry needs beside its text too

    explicit QueuedLog(std::unique_ptr<SystemLog> sink);
    ~QueuedLog() override;
    QueuedLog(const QueuedLog&) = delete;
    QueuedLog& operator=(const QueuedLog&) = delete;

    /// Starts the thread. Where that fails, each write() and finish() try again.
    void createCategories(const char* identifier) override;
    /// Asks the sink, on the caller's thread.
    [[nodiscard]] bool records(LogCategory category) const override;
    void write(LogCategory category, std::string_view text) noexcept override;

    /// Gives the sink a second to take what is queued, so that nothing is lost when the process
    /// exits in an orderly way, and another one for the status entries if it goes on taking some;
    /// the rest is then told as lost. After that the thread goes on by itself, with the queue and
    /// the sink as its own. Where no thread can be had even then, all is lost: the sink might block
    /// its caller for ever. Nobody writes what comes later. The destructor does the same.
    void finish() noexcept;

 private:
    class Queue;

    void startThread() noexcept;

    const std::shared_ptr<Queue> queue_;  ///< shared with the thread
    std::thread thread_;                  ///< guarded by the queue's lock, as is created_
    bool created_ = false;
};

}  // namespace corvane
