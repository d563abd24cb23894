#pragma once

#include <cstddef>
#include <string>

#include "platform/system_log.h"

namespace corvane {

/// The system log through syslog(3), facility LOG_DAEMON. The level tells the category: LOG_ERR is
/// status, LOG_INFO transactions. One per process at a time, as syslog(3) has one state for all.
///
/// An entry stays one message: a NUL, which would end it, is written as "#000", and what exceeds
/// `longestEntry` is cut, "...\n" at its end. All else goes out as it came.
class SyslogLog final : public SystemLog {
 public:
    /// In bytes. Common daemons take at most 8 KiB, with a header before the text.
    static constexpr std::size_t longestEntry = 8000;

    SyslogLog() = default;
    ~SyslogLog() override;
    SyslogLog(const SyslogLog&) = delete;
    SyslogLog& operator=(const SyslogLog&) = delete;

    void createCategories(const char* identifier) override;
    [[nodiscard]] bool records(LogCategory category) const override;
    void write(LogCategory category, std::string_view text) noexcept override;

 private:
    std::string identifier_;  ///< syslog(3) keeps a pointer to it
};

}  // namespace corvane
