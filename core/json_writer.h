#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/json_value.h"

namespace corvane {

/// The compact JSON text of `value`, between `prefix` and `suffix`, made in one buffer that is
/// sized beforehand, so that a long string is copied once.
///
/// The text is valid JSON whatever strings hold: bytes that are not UTF-8 become U+FFFD. Members
/// stand in the order in which they were added.
/// Throws std::bad_alloc.
std::string writeJson(const JsonValue& value, std::string_view prefix = {},
                      std::string_view suffix = {});

/// Ample for the line of an answer with a few short members and a few plain texts. Whoever does
/// what cannot be undone tries first whether it can be had (requireMemory), so that "out of memory"
/// mostly means that nothing was done.
inline constexpr std::size_t roomForLine = std::size_t{32} * 1024;

/// Plain texts from this length on are lent by a JsonLine.
inline constexpr std::size_t lentLength = 4096;

/// The same text in pieces, one behind the other, which spares a copy of what is large: long plain
/// texts are lent by the value, which must outlive the object.
class JsonLine {
 public:
    /// Throws std::bad_alloc.
    JsonLine(const JsonValue& value, std::string_view prefix, std::string_view suffix);
    JsonLine(JsonLine&&) = delete;

    /// Lent, until the object or the value ends.
    [[nodiscard]] std::span<const std::string_view> pieces() const noexcept { return pieces_; }

    /// How many bytes the pieces have together.
    [[nodiscard]] std::size_t size() const noexcept;

 private:
    std::string own_;  ///< all that is not lent
    std::vector<std::string_view> pieces_;
};

/// Takes JSON text piece by piece.
class JsonTextSink {
 public:
    virtual ~JsonTextSink() = default;
    virtual void append(std::string_view text) = 0;
};

/// Gives the same text to `sink` in pieces, without making it whole.
void writeJson(const JsonValue& value, JsonTextSink& sink);

}  // namespace corvane
