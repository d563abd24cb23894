// The text is made in two passes over the value: one that measures, one that fills a string of
// exactly that size, so that no text is ever moved to a larger buffer. Long strings mostly need no
// escapes at all; the first pass notes which, and the second copies those without looking again.
//
// The recursion needs no guard of its own: values come from the reader, which bounds their depth,
// or from handlers, whose results are a few levels deep.

#include "core/json_writer.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <charconv>
#include <cstddef>
#include <vector>

#include "core/heap.h"
#include "core/plain_text.h"

namespace corvane {

namespace {

constexpr std::size_t longString = 4096;        ///< from here on, a note of plainness pays
constexpr std::ptrdiff_t runLimit = 16 * 1024;  ///< bytes handed on while they are in the cache

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

/// The length of the well-formed UTF-8 sequence of two bytes or more at `at`; 0 if there is none.
std::ptrdiff_t sequenceLength(const char* at, const char* end) noexcept {
    const auto byteAt = [at](std::ptrdiff_t index) {
        return static_cast<unsigned>(static_cast<unsigned char>(at[index]));
    };
    const unsigned lead = byteAt(0);
    const std::ptrdiff_t length = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length == 0 || lead > 0xF4 || end - at < length) {
        return 0;
    }
    // The second byte's range excludes overlong forms, surrogates and what is beyond U+10FFFF.
    const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byteAt(1) < lowest || byteAt(1) > highest) {
        return 0;
    }
    for (std::ptrdiff_t index = 2; index < length; ++index) {
        if ((byteAt(index) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

/// The end of the run from `at` on that stands in JSON as it is, or of its first `runLimit` bytes.
const char* findRunEnd(const char* at, const char* end) noexcept {
    const char* const limit = at + std::min(end - at, runLimit);
    while (at < limit) {
        const std::ptrdiff_t length =
            isPlain(*at) ? static_cast<std::ptrdiff_t>(
                               plainLength({at, static_cast<std::size_t>(limit - at)}))
                         : sequenceLength(at, end);
        if (length == 0) {
            return at;
        }
        at += length;
    }
    return at;
}

/// A plain text that is not copied, and how much of the copied text stands before it.
struct LentText {
    std::size_t position;
    std::string_view text;
};

/// Counts the text and notes which long strings need no escapes, and which are lent if any may be.
struct MeasuringSink {
    void append(std::string_view text) noexcept { size += text.size(); }
    void appendPlain(std::string_view text) {
        if (lends && text.size() >= lentLength) {
            lent.push_back({size, text});
        } else {
            append(text);
        }
    }
    bool takeNoteOfPlain() noexcept { return false; }
    void notePlain(bool plain) { plainNotes.push_back(plain); }

    bool lends = false;
    std::vector<LentText> lent;

    std::size_t size = 0;
    std::vector<bool> plainNotes;
};

/// Appends the text to a string, with the notes at hand.
struct FillingSink {
    void append(std::string_view piece) { text.append(piece); }
    void appendPlain(std::string_view piece) {
        if (!measure.lends || piece.size() < lentLength) {
            append(piece);
        }
    }
    bool takeNoteOfPlain() { return measure.plainNotes[nextNote++]; }
    void notePlain(bool) noexcept {}

    std::string& text;
    const MeasuringSink& measure;
    std::size_t nextNote = 0;
};

/// Hands the text on to a sink of the caller's.
struct ForwardingSink {
    void append(std::string_view text) { target.append(text); }
    void appendPlain(std::string_view text) { append(text); }
    bool takeNoteOfPlain() noexcept { return false; }
    void notePlain(bool) noexcept {}

    JsonTextSink& target;
};

template <typename Sink>
class TextMaker {
 public:
    explicit TextMaker(Sink& sink) noexcept : sink_(sink) {}

    void write(const JsonValue& value) {
        if (const auto* number = value.number()) {
            writeNumber(*number);
        } else if (const auto* text = value.string()) {
            value.isPlainText() ? writePlainText(*text) : writeString(*text);
        } else if (const auto* array = value.array()) {
            writeArray(*array);
        } else if (const auto* object = value.object()) {
            writeObject(*object);
        } else {
            sink_.append("null");
        }
    }

 private:
    void writeNumber(const JsonNumber& number) {
        if (number.isBoolean()) {
            sink_.append(number.asBoolean() ? "true" : "false");
            return;
        }
        std::array<char, 24> digits;
        char* const end = digits.data() + digits.size();
        const auto written = number.isNegative()
                                 ? std::to_chars(digits.data(), end, number.asSigned64())
                                 : std::to_chars(digits.data(), end, number.asUnsigned64());
        sink_.append({digits.data(), static_cast<std::size_t>(written.ptr - digits.data())});
    }

    void writeArray(const JsonArray& array) {
        sink_.append("[");
        bool first = true;
        for (const JsonValue& element : array) {
            sink_.append(first ? "" : ",");
            first = false;
            write(element);
        }
        sink_.append("]");
    }

    void writeObject(const JsonObject& object) {
        sink_.append("{");
        bool first = true;
        for (const JsonMember& member : object.members()) {
            sink_.append(first ? "" : ",");
            first = false;
            writeString(member.key);
            sink_.append(":");
            write(member.value);
        }
        sink_.append("}");
    }

    void writePlainText(std::string_view text) {
        assert(plainLength(text) == text.size());
        sink_.append("\"");
        sink_.appendPlain(text);
        sink_.append("\"");
    }

    void writeString(std::string_view text) {
        sink_.append("\"");
        if (text.size() < longString) {
            writeEscaped(text);
        } else if (sink_.takeNoteOfPlain()) {
            sink_.append(text);
        } else {
            sink_.notePlain(writeEscaped(text));
        }
        sink_.append("\"");
    }

    /// Returns whether the text needed no escapes.
    bool writeEscaped(std::string_view text) {
        bool plain = true;
        const char* at = text.data();
        const char* const end = at + text.size();
        while (at < end) {
            const char* const runEnd = findRunEnd(at, end);
            if (runEnd == at) {
                writeSpecial(*at);
                ++at;
                plain = false;
            } else {
                sink_.append({at, static_cast<std::size_t>(runEnd - at)});
                at = runEnd;
            }
        }
        return plain;
    }

    /// A character to escape, or a byte that is no part of a UTF-8 sequence: each of those is
    /// replaced by itself, so that a reader sees how many there were.
    void writeSpecial(char character) {
        switch (character) {
            case '"':
                return sink_.append("\\\"");
            case '\\':
                return sink_.append("\\\\");
            case '\b':
                return sink_.append("\\b");
            case '\f':
                return sink_.append("\\f");
            case '\n':
                return sink_.append("\\n");
            case '\r':
                return sink_.append("\\r");
            case '\t':
                return sink_.append("\\t");
            default:
                break;
        }
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x80) {
            return sink_.append(replacementCharacter);
        }
        constexpr std::string_view hexDigits = "0123456789abcdef";
        const std::array<char, 6> escape = {
            '\\', 'u', '0', '0', hexDigits[byte >> 4U], hexDigits[byte & 0xFU]};
        sink_.append({escape.data(), escape.size()});
    }

    Sink& sink_;
};

std::string writeMeasured(const JsonValue& value, std::string_view prefix, std::string_view suffix,
                          MeasuringSink& measure) {
    measure.append(prefix);
    TextMaker(measure).write(value);
    measure.append(suffix);

    std::string text;
    text.reserve(measure.size);
    preferLargePages(text.data(), text.capacity());
    text.append(prefix);
    FillingSink fill{text, measure};
    TextMaker(fill).write(value);
    text.append(suffix);
    return text;
}

}  // namespace

std::string writeJson(const JsonValue& value, std::string_view prefix, std::string_view suffix) {
    MeasuringSink measure;
    return writeMeasured(value, prefix, suffix, measure);
}

JsonLine::JsonLine(const JsonValue& value, std::string_view prefix, std::string_view suffix) {
    MeasuringSink measure;
    measure.lends = true;
    own_ = writeMeasured(value, prefix, suffix, measure);
    const std::string_view own = own_;
    std::size_t position = 0;
    for (const LentText& lent : measure.lent) {
        pieces_.push_back(own.substr(position, lent.position - position));
        pieces_.push_back(lent.text);
        position = lent.position;
    }
    pieces_.push_back(own.substr(position));
}

std::size_t JsonLine::size() const noexcept {
    std::size_t size = 0;
    for (const std::string_view piece : pieces_) {
        size += piece.size();
    }
    return size;
}

void writeJson(const JsonValue& value, JsonTextSink& sink) {
    ForwardingSink forward{sink};
    TextMaker(forward).write(value);
}

}  // namespace corvane
