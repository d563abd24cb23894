#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace corvane::vm {

/// The last that went over a channel, to be shown when a test fails.
class TrafficRecord {
 public:
    void sent(std::string_view bytes) { add("> ", bytes); }
    void received(std::string_view bytes) { add("< ", bytes); }
    /// What happened to the channel itself.
    void note(std::string_view text) { add("  ", text); }

    /// Oldest first, a line each; long ones are cut and what is not printable is escaped.
    std::string text() const;

 private:
    void add(std::string_view mark, std::string_view bytes);

    static constexpr std::size_t kept = 60;
    std::deque<std::string> lines_;
};

}  // namespace corvane::vm
