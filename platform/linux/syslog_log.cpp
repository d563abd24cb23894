#include "platform/linux/syslog_log.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <paths.h>

namespace corvane {
namespace {

int level(LogCategory category) noexcept {
    return category == LogCategory::status ? LOG_ERR : LOG_INFO;
}

/// An entry made presentable, without memory of its own: the log must work when there is none.
class Entry {
 public:
    explicit Entry(std::string_view text) noexcept {
        for (const char byte : text) {
            const auto piece = byte == '\0' ? std::string_view("#000") : std::string_view(&byte, 1);
            if (length_ + piece.size() > SyslogLog::longestEntry) {
                cut();
                return;
            }
            append(piece);
        }
    }

    [[nodiscard]] const char* text() const noexcept { return text_.data(); }
    [[nodiscard]] int length() const noexcept { return static_cast<int>(length_); }

 private:
    void append(std::string_view piece) noexcept {
        std::copy(piece.begin(), piece.end(), text_.begin() + static_cast<std::ptrdiff_t>(length_));
        length_ += piece.size();
    }

    void cut() noexcept {
        constexpr std::string_view mark = "...\n";
        length_ = std::min(length_, SyslogLog::longestEntry - mark.size());
        append(mark);
    }

    std::array<char, SyslogLog::longestEntry> text_;
    std::size_t length_ = 0;
};

}  // namespace

SyslogLog::~SyslogLog() {
    if (!identifier_.empty()) {
        ::closelog();
    }
}

void SyslogLog::createCategories(const char* identifier) {
    identifier_ = identifier;
    ::openlog(identifier_.c_str(), LOG_PID, LOG_DAEMON);
}

bool SyslogLog::records(LogCategory /*category*/) const {
    return ::access(_PATH_LOG, F_OK) == 0;
}

void SyslogLog::write(LogCategory category, std::string_view text) noexcept {
    const Entry entry(text);
    ::syslog(LOG_DAEMON | level(category), "%.*s", entry.length(), entry.text());
}

}  // namespace corvane
