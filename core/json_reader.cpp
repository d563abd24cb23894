// Boost.JSON's incremental parser checks the syntax and reports what it meets; the handler here
// builds the values. The line is fed to it as it lies in memory, slice by slice, so that a long
// string is copied once, straight into the value that holds it. Of a string that has begun, what
// is plain is taken past the parser, which has nothing to do with it but look at each byte.

#include "core/json_reader.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

// The parser has a buffer of this size on the stack wherever it decodes escapes.
#define BOOST_JSON_STACK_BUFFER_SIZE 1024
#include <boost/json/basic_parser_impl.hpp>

#include "core/heap.h"
#include "core/plain_text.h"

namespace corvane {

namespace {

namespace json = boost::json;

/// The parser is never given more at once than fits its buffer of decoded text with room to spare.
/// It sizes what it decodes by what it is given, but on resuming inside an escape or a UTF-8
/// sequence, up to three bytes more come out than go in, and it would write past the buffer's end.
constexpr std::size_t feedLimit = 1024 - 16;

/// A string in several parts is grown step by step up to this size. A longer one gets, once, the
/// room that the rest of the line could fill, for its copies would cost time and memory in
/// proportion to the line; memory that is reserved and not touched costs nothing.
constexpr std::size_t growthLimit = 64 * 1024;

class ValueBuilder {
 public:
    static constexpr std::size_t max_object_size = SIZE_MAX;
    static constexpr std::size_t max_array_size = SIZE_MAX;
    static constexpr std::size_t max_key_size = SIZE_MAX;
    static constexpr std::size_t max_string_size = SIZE_MAX;

    /// Before more of the line is taken in, of which `bytesLeft` bytes are left.
    void startPiece(std::size_t bytesLeft) noexcept {
        bytesLeft_ = bytesLeft;
        partEnd_ = nullptr;
    }

    /// Whether the parser, which has been given all up to `end`, waits there for the next character
    /// of a string. A part that ends elsewhere is followed by half a character, or was decoded.
    [[nodiscard]] bool isInStringAt(const char* end) const noexcept { return partEnd_ == end; }

    /// Takes what the parser would report as a part of the string that it is in.
    void appendPlain(std::string_view part) { appendText({part.data(), part.size()}); }

    JsonValue takeResult() noexcept { return std::move(result_); }

    bool on_document_begin(json::error_code&) noexcept { return true; }
    bool on_document_end(json::error_code&) noexcept { return true; }

    bool on_array_begin(json::error_code&) { return open(JsonArray()); }
    bool on_array_end(std::size_t, json::error_code&) { return close(); }
    bool on_object_begin(json::error_code&) { return open(JsonObject()); }
    bool on_object_end(std::size_t, json::error_code&) { return close(); }

    bool on_key_part(json::string_view part, std::size_t, json::error_code&) {
        appendText(part);
        return true;
    }
    bool on_key(json::string_view part, std::size_t, json::error_code&) {
        open_.back().key = takeText(part);
        return true;
    }
    bool on_string_part(json::string_view part, std::size_t, json::error_code& error) {
        if (!checkInside(error)) {
            return false;
        }
        appendText(part);
        partEnd_ = part.data() + part.size();
        return true;
    }
    bool on_string(json::string_view part, std::size_t, json::error_code& error) {
        return checkInside(error) && add(takeText(part));
    }

    bool on_number_part(json::string_view part, json::error_code&) {
        numberText_.append(part.data(), part.size());
        return true;
    }
    bool on_int64(std::int64_t value, json::string_view, json::error_code& error) {
        numberText_.clear();
        return checkInside(error) && add(JsonNumber::fromSigned(value));
    }
    bool on_uint64(std::uint64_t value, json::string_view, json::error_code& error) {
        numberText_.clear();
        return checkInside(error) && add(JsonNumber::fromUnsigned(value));
    }
    /// Called for all numbers that are not exactly one of the above, with a value that is rounded
    /// or infinite: the text tells more.
    bool on_double(double, json::string_view part, json::error_code& error) {
        numberText_.append(part.data(), part.size());
        const auto number = JsonNumber::fromText(numberText_);
        numberText_.clear();
        return checkInside(error) && add(number);
    }
    bool on_bool(bool value, json::error_code& error) {
        return checkInside(error) && add(JsonNumber::fromBoolean(value));
    }
    bool on_null(json::error_code& error) { return checkInside(error) && add(JsonValue()); }

    bool on_comment_part(json::string_view, json::error_code&) noexcept { return true; }
    bool on_comment(json::string_view, json::error_code&) noexcept { return true; }

 private:
    /// An array or object whose end has not come yet, with the key of the member being read.
    struct OpenValue {
        JsonValue value;
        std::string key;
    };

    bool open(JsonValue value) {
        open_.push_back({std::move(value), {}});
        return true;
    }

    bool close() {
        JsonValue value = std::move(open_.back().value);
        open_.pop_back();
        if (open_.empty()) {
            result_ = std::move(value);
            return true;
        }
        return add(std::move(value));
    }

    /// Refuses a value of another kind than array or object at the top.
    bool checkInside(json::error_code& error) const {
        if (open_.empty()) {
            error = json::make_error_code(json::error::syntax);
        }
        return !open_.empty();
    }

    bool add(JsonValue value) {
        OpenValue& parent = open_.back();
        if (auto* array = parent.value.array()) {
            array->push_back(std::move(value));
        } else {
            parent.value.object()->add(std::move(parent.key), std::move(value));
        }
        return true;
    }

    void appendText(json::string_view part) {
        const std::size_t wanted = text_.size() + part.size();
        if (wanted > text_.capacity() && wanted > growthLimit) {
            text_.reserve(text_.size() + std::max(part.size(), bytesLeft_));
            preferLargePages(text_.data() + text_.size(), text_.capacity() - text_.size());
        }
        text_.append(part.data(), part.size());
    }

    std::string takeText(json::string_view lastPart) {
        if (text_.empty()) {
            return {lastPart.data(), lastPart.size()};
        }
        appendText(lastPart);
        if (text_.capacity() / 2 > text_.size()) {
            text_.shrink_to_fit();
        }
        return std::exchange(text_, {});
    }

    JsonValue result_;
    std::vector<OpenValue> open_;
    std::string text_;               ///< the parts so far of a string or key
    std::string numberText_;         ///< the parts so far of a number
    const char* partEnd_ = nullptr;  ///< where the last part of a string ended
    std::size_t bytesLeft_ = 0;
};

JsonError describe(const std::string& reason, std::size_t position) {
    return {reason + " at byte " + std::to_string(position)};
}

json::parse_options strictOptions() noexcept {
    json::parse_options options;
    options.max_depth = jsonDepthLimit;
    return options;
}

}  // namespace

JsonOutcome readJson(RequestLine line) {
    json::basic_parser<ValueBuilder> parser(strictOptions());
    json::error_code error;
    const std::size_t lineSize = sizeOf(line);
    std::size_t position = 0;

    bool isInString = false;

    for (InputSlice& slice : line) {
        for (std::string_view rest = slice.bytes(); !rest.empty();) {
            parser.handler().startPiece(lineSize - position);
            if (const std::size_t plain = isInString ? plainLength(rest) : 0; plain > 0) {
                parser.handler().appendPlain(rest.substr(0, plain));
                rest.remove_prefix(plain);
                position += plain;
                continue;
            }
            const std::string_view piece = rest.substr(0, feedLimit);
            const std::size_t consumed = parser.write_some(true, piece.data(), piece.size(), error);
            position += consumed;
            if (error) {
                return describe(error.message(), position);
            }
            // A parser that has its value stops in front of what follows, without an error.
            if (consumed < piece.size()) {
                return describe("text after the value", position);
            }
            rest.remove_prefix(piece.size());
            isInString = parser.handler().isInStringAt(piece.data() + piece.size());
        }
        slice = {};
    }
    // The pieces of the line lie scattered between others in the heap and would not serve the large
    // buffers of an answer.
    if (lineSize >= hugeMessage) {
        trimHeap();
    }
    parser.write_some(false, "", 0, error);
    if (error) {
        return describe(error.message(), position);
    }
    return parser.handler().takeResult();
}

}  // namespace corvane
