// The writer on strings of any bytes: what it writes is JSON for Boost.JSON and for our own reader,
// and says the same but for bytes that are not UTF-8.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "core/json_reader.h"
#include "core/json_writer.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"

namespace corvane {
namespace {

namespace json = boost::json;

/// The code point that `text` begins with and its length; length 0 where there is none. Works by
/// the arithmetic of the encoding and not, as the writer, by ranges of bytes.
std::size_t decode(std::string_view text) {
    const auto byteAt = [text](std::size_t index) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[index]));
    };
    const std::uint32_t lead = byteAt(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || lead >= 0xF8 || text.size() < length) {
        return 0;
    }
    std::uint32_t point = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(i) & 0xC0U) != 0x80U) {
            return 0;
        }
        point = point << 6U | (byteAt(i) & 0x3FU);
    }
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
    return point < smallest[length] || point > 0x10FFFF || surrogate ? 0 : length;
}

std::string repaired(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = decode(text);
        result += length == 0 ? "\xEF\xBF\xBD" : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

class CollectingSink final : public JsonTextSink {
 public:
    void append(std::string_view text) override { text_ += text; }
    [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
    std::string text_;
};

void run(FuzzInput input) {
    const std::string text(input.text());
    // Once as it is, now and then long enough to be taken for a long string, and as a member's
    // name.
    std::string longText = text;
    const bool makeLong = !text.empty() && input.next() % 4 == 0;
    while (makeLong && longText.size() < 5'000) {
        longText += longText;
    }
    JsonObject object;
    object.add(text, JsonArray{text, JsonNumber::fromSigned(-1)});
    const JsonValue value = JsonArray{text, longText, object, std::string()};

    const std::string output = writeJson(value, "<", ">");
    check(output.capacity() == output.size() || output.size() <= 30, "the size was known");
    const std::string_view written = std::string_view(output).substr(1, output.size() - 2);
    CollectingSink sink;
    writeJson(value, sink);
    check(sink.text() == written, "a sink gets the same text");
    check(written.find('\n') == std::string_view::npos, "the text is one line");

    json::error_code error;
    const json::value read = json::parse({written.data(), written.size()}, error);
    check(!error, "the text is JSON");
    const auto& array = read.as_array();
    check(array.size() == 4, "all elements are there");
    check(array[0].as_string() == repaired(text), "a string is the same");
    check(array[1].as_string() == repaired(longText), "a long string is the same");
    const auto& member = *array[2].as_object().begin();
    check(member.key() == repaired(text), "a name is the same");
    check(member.value().as_array()[0].as_string() == repaired(text),
          "a nested string is the same");

    RequestLine line;
    const std::size_t cut = input.next() % written.size();
    line.push_back(InputSlice::copyOf(written.substr(0, cut)));
    line.push_back(InputSlice::copyOf(written.substr(cut)));
    const JsonOutcome outcome = readJson(std::move(line));
    check(std::holds_alternative<JsonValue>(outcome), "our reader takes the text");
    check(writeJson(std::get<JsonValue>(outcome)) == written, "what was read writes the same");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run(corvane::FuzzInput({data, size}));
    return 0;
}
