#pragma once

#include <string_view>

namespace corvane {

/// What an entry of the system log is about.
enum class LogCategory {
    status,        ///< the agent's own messages, at the error level, in clear
    transactions,  ///< one entry per request and per response, at the info level, values masked
};

/// The system log of the guest. Any thread may write.
class SystemLog {
 public:
    virtual ~SystemLog() = default;

    /// Makes the two categories ready under the program's identifier. Called once, at start.
    virtual void createCategories(const char* identifier) = 0;

    /// Whether entries of `category` are written anywhere: what is costly to make for an entry is
    /// made only then.
    [[nodiscard]] virtual bool records(LogCategory category) const = 0;

    /// Writes one entry, unchanged, a newline at its end included. A failure is lost silently: the
    /// log is where failures would be reported.
    virtual void write(LogCategory category, std::string_view text) noexcept = 0;
};

}  // namespace corvane
