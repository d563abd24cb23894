#pragma once

#include <sys/ioctl.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/json_value.h"
#include "platform/terminals.h"
#include "tests/fuzz/check.h"

namespace corvane {

/// The low bits of the number under `key`, as many as a `Word` has; 0 when there is none. Only for
/// what was accepted: whatever stands there must be a number.
template <typename Word>
Word wordIn(const JsonObject& object, std::string_view key) {
    const JsonValue* value = object.find(key);
    return value == nullptr ? Word{} : static_cast<Word>(value->number()->asUnsigned64());
}

inline void checkSize(const winsize& size, const JsonObject& given) {
    check(size.ws_row == wordIn<unsigned short>(given, "rows") &&
              size.ws_col == wordIn<unsigned short>(given, "columns") &&
              size.ws_xpixel == wordIn<unsigned short>(given, "x") &&
              size.ws_ypixel == wordIn<unsigned short>(given, "y"),
          "the size is the one given");
}

inline void checkSettings(const TerminalSettings& settings, const JsonObject& given) {
    check(settings.c_iflag == wordIn<std::uint64_t>(given, "iflag") &&
              settings.c_oflag == wordIn<std::uint64_t>(given, "oflag") &&
              settings.c_cflag == wordIn<std::uint64_t>(given, "cflag") &&
              settings.c_lflag == wordIn<std::uint64_t>(given, "lflag"),
          "the flags are those given");
    check(settings.c_ispeed == wordIn<std::uint64_t>(given, "ispeed") &&
              settings.c_ospeed == wordIn<std::uint64_t>(given, "ospeed"),
          "the speeds are those given");
    const JsonValue* characters = given.find("cc");
    check(settings.c_cc.has_value() == (characters != nullptr), "characters are there when given");
    for (std::size_t index = 0; settings.c_cc && index < settings.c_cc->size(); ++index) {
        const JsonNumber& number = *(*characters->array())[index].number();
        check((*settings.c_cc)[index] == (number.asUnsigned64() & 0xFFU),
              "the characters are those given");
    }
}

}  // namespace corvane
