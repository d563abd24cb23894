#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/linux/syslog_log.h"
#include "platform/system_log.h"

namespace corvane {

/// The system log through the journal: one entry per text with the fields MESSAGE (unchanged, of
/// any length and any bytes), PRIORITY, SYSLOG_IDENTIFIER and CORVANE_CATEGORY ("status" or
/// "transactions"). While there is no journal, or it refuses an entry, syslog takes its place; when
/// the journal vanishes, entries of transactions may be lost for up to a second.
class JournalLog final : public SystemLog {
 public:
    void createCategories(const char* identifier) override;
    [[nodiscard]] bool records(LogCategory category) const override;
    void write(LogCategory category, std::string_view text) noexcept override;

 private:
    static constexpr std::int64_t never = -1;

    [[nodiscard]] bool journalReachable(LogCategory category) const noexcept;

    std::string identifierField_;
    /// When the journal was last there, in whole seconds of the machine's running time.
    mutable std::atomic<std::int64_t> seenAt_ = never;
    SyslogLog syslog_;
};

}  // namespace corvane
