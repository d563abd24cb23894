#include "commands/exec/terminal_settings.h"

#include <string>

#include "core/arguments.h"
#include "core/message.h"

namespace corvane {

namespace {

std::uint64_t readWord(ArgumentReader& reader, const char* key) {
    const auto number = reader.optionalNumber(key);
    return number ? number->asUnsigned64() : 0;
}

void readControlCharacters(ArgumentReader& reader, TerminalSettings& settings) {
    const JsonArray* elements = reader.optionalArray("cc");
    if (!elements) {
        return;
    }
    if (elements->size() != controlCharacterCount) {
        reader.fail("cc must be length " + std::to_string(controlCharacterCount));
        return;
    }
    auto& characters = settings.c_cc.emplace();
    for (std::size_t index = 0; index < characters.size(); ++index) {
        const JsonValue& element = (*elements)[index];
        const JsonNumber* number = element.number();
        if (!number) {
            reader.fail("cc value '" + textForm(element) + "' at index " + std::to_string(index) +
                        " is not a number");
            return;
        }
        characters[index] = static_cast<std::uint8_t>(number->asSigned8());
    }
}

}  // namespace

std::optional<JsonValue> getTerminalSettings(const char* handler, const JsonValue& value,
                                             TerminalSettings& settings) {
    ArgumentReader reader(handler, "mirel-termios", value);
    settings.c_iflag = readWord(reader, "iflag");
    settings.c_oflag = readWord(reader, "oflag");
    settings.c_cflag = readWord(reader, "cflag");
    settings.c_lflag = readWord(reader, "lflag");
    settings.c_ispeed = readWord(reader, "ispeed");
    settings.c_ospeed = readWord(reader, "ospeed");
    readControlCharacters(reader, settings);
    return reader.failed() ? std::optional(reader.takeError()) : std::nullopt;
}

}  // namespace corvane
