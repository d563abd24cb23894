#include "commands/exec/window_size.h"

#include "core/arguments.h"

namespace corvane {

namespace {

void store(const std::optional<JsonNumber>& number, unsigned short& field) {
    if (number) {
        field = static_cast<unsigned short>(number->asUnsigned64());
    }
}

}  // namespace

std::optional<JsonValue> getWindowSize(const JsonValue& value, winsize& record) {
    ArgumentReader reader("getWindowSize", "mirel-window-size", value);
    const auto x = reader.optionalNumber("x");
    const auto y = reader.optionalNumber("y");
    const auto rows = reader.optionalNumber("rows");
    const auto columns = reader.optionalNumber("columns");
    if (reader.failed()) {
        return reader.takeError();
    }
    store(x, record.ws_xpixel);
    store(y, record.ws_ypixel);
    store(rows, record.ws_row);
    store(columns, record.ws_col);
    return std::nullopt;
}

}  // namespace corvane
