// Any JSON value as a window's size and as a terminal's settings: the records have the values that
// were given. The settings are translated and applied to a real pseudo-terminal, which must take
// them.

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdlib.h>
#include <string_view>
#include <variant>

#include "commands/exec/terminal_settings.h"
#include "commands/exec/window_size.h"
#include "core/json_reader.h"
#include "platform/linux/terminal_translation.h"
#include "tests/fuzz/caught_standard_error.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/given_values.h"

namespace corvane {
namespace {

/// The terminal that all settings are tried on.
int terminal() {
    static const DescriptorGuard master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    static const DescriptorGuard slave([] {
        check(::unlockpt(master.borrow()) == 0, "there are pseudo-terminals");
        return ::ioctl(master.borrow(), TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    }());
    return slave.borrow();
}

KernelTerminalSettings currentSettings() {
    KernelTerminalSettings settings{};
    check(::ioctl(terminal(), readTerminalSettings, &settings) == 0, "the terminal is there");
    return settings;
}

bool areSame(const KernelTerminalSettings& one, const KernelTerminalSettings& other) {
    return one.c_iflag == other.c_iflag && one.c_oflag == other.c_oflag &&
           one.c_cflag == other.c_cflag && one.c_lflag == other.c_lflag &&
           one.c_line == other.c_line && std::memcmp(one.c_cc, other.c_cc, sizeof one.c_cc) == 0 &&
           one.c_ispeed == other.c_ispeed && one.c_ospeed == other.c_ospeed;
}

void checkSettingsIn(const JsonValue& value) {
    TerminalSettings settings;
    if (getTerminalSettings("handler", value, settings)) {
        return;
    }
    checkSettings(settings, *value.object());
    const KernelTerminalSettings before = currentSettings();
    const KernelTerminalSettings translated = translateSettings(settings, before);
    check(areSame(translateSettings(settings, translated), translated),
          "settings that are in force change nothing");
    check(translated.c_line == before.c_line, "the line discipline stays");
    if (!settings.c_cc) {
        check(std::memcmp(translated.c_cc, before.c_cc, sizeof before.c_cc) == 0,
              "characters that are not given stay");
    }
    check(settings.c_ospeed != 0 || translated.c_ospeed == before.c_ospeed,
          "a speed that is not given stays");

    check(::ioctl(terminal(), writeTerminalSettings, &translated) == 0, "a terminal takes them");
    const KernelTerminalSettings after = currentSettings();
    check(after.c_iflag == translated.c_iflag && after.c_oflag == translated.c_oflag &&
              after.c_lflag == translated.c_lflag &&
              std::memcmp(after.c_cc, translated.c_cc, sizeof after.c_cc) == 0,
          "and has them then");
}

void checkSizeIn(const JsonValue& value) {
    winsize size{};
    if (getWindowSize(value, size)) {
        check(size.ws_row == 0 && size.ws_col == 0 && size.ws_xpixel == 0 && size.ws_ypixel == 0,
              "a size that is refused is left alone");
        return;
    }
    checkSize(size, *value.object());
}

void run(std::string_view text) {
    RequestLine line;
    line.push_back(InputSlice::copyOf(text));
    const JsonOutcome outcome = readJson(std::move(line));
    if (const auto* value = std::get_if<JsonValue>(&outcome)) {
        const CaughtStandardError caught;
        checkSizeIn(*value);
        checkSettingsIn(*value);
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
