// Where in our sources an entry was written tells the reader of a guest's journal nothing, and
// costs three fields of every entry.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "platform/linux/journal_log.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <exception>
#include <time.h>

#include <systemd/sd-journal.h>

namespace corvane {
namespace {

// Built into libsystemd, which takes a missing socket for success and drops the entry: whoever
// wants another log then has to look for himself.
constexpr char journalSocketPath[] = "/run/systemd/journal/socket";

std::int64_t secondsNow() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

std::string_view priorityField(LogCategory category) noexcept {
    return category == LogCategory::status ? "PRIORITY=3" : "PRIORITY=6";
}

std::string_view categoryField(LogCategory category) noexcept {
    return category == LogCategory::status ? "CORVANE_CATEGORY=status"
                                           : "CORVANE_CATEGORY=transactions";
}

iovec field(std::string_view text) noexcept {
    return {const_cast<char*>(text.data()), text.size()};
}

}  // namespace

void JournalLog::createCategories(const char* identifier) {
    identifierField_ = std::string("SYSLOG_IDENTIFIER=") + identifier;
    syslog_.createCategories(identifier);
}

/// Looking is dear beside the rest of a small request, which has two entries of transactions: for
/// these a journal that was there counts as there for the rest of the second.
bool JournalLog::journalReachable(LogCategory category) const noexcept {
    const std::int64_t now = secondsNow();
    if (category == LogCategory::transactions && seenAt_ == now) {
        return true;
    }
    const bool isThere = ::access(journalSocketPath, F_OK) == 0;
    seenAt_ = isThere ? now : never;
    return isThere;
}

bool JournalLog::records(LogCategory category) const {
    return journalReachable(category) || syslog_.records(category);
}

void JournalLog::write(LogCategory category, std::string_view text) noexcept {
    try {
        if (journalReachable(category)) {
            std::string message;
            message.reserve(8 + text.size());
            message.append("MESSAGE=").append(text);
            const std::array fields{field(message), field(priorityField(category)),
                                    field(categoryField(category)), field(identifierField_)};
            // Before the identifier is known the journal takes the program's name.
            const int count = identifierField_.empty() ? 3 : 4;
            if (::sd_journal_sendv(fields.data(), count) == 0) {
                return;
            }
        }
    } catch (const std::exception&) {
        // No memory for the entry; syslog's needs none.
    }
    syslog_.write(category, text);
}

}  // namespace corvane
