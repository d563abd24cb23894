#pragma once

#include <string>

#include "platform/linux/syslog_log.h"
#include "platform/system_log.h"

namespace corvane {

/// The system log through the journal: one entry per text with the fields MESSAGE (unchanged, of
/// any length and any bytes), PRIORITY, SYSLOG_IDENTIFIER and CORVANE_CATEGORY ("status" or
/// "transactions"). While there is no journal, or it refuses an entry, syslog takes its place.
class JournalLog final : public SystemLog {
 public:
    void createCategories(const char* identifier) override;
    [[nodiscard]] bool records(LogCategory category) const override;
    void write(LogCategory category, std::string_view text) noexcept override;

 private:
    std::string identifierField_;
    SyslogLog syslog_;
};

}  // namespace corvane
