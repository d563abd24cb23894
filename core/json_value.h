#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvane {

class JsonValue;
struct JsonMember;

/// A JSON number or boolean: one kind, since a boolean is good wherever a number is asked for.
///
/// Holds the number's integer part modulo 2^64, worked out exactly from its decimal text, so that
/// a read of any width wraps exactly: 18446744073709551621 reads as 5, 2.9 as 2, 1e400 as 0
/// (10^400 is a multiple of 2^64).
class JsonNumber {
 public:
    /// Read as 64 bits: the fraction cut off, out-of-range values wrapped in two's complement.
    /// Narrower reads are casts of this one, which wrap in the same way.
    [[nodiscard]] std::uint64_t asUnsigned64() const noexcept { return bits_; }
    [[nodiscard]] std::int64_t asSigned64() const noexcept {
        return static_cast<std::int64_t>(bits_);
    }
    [[nodiscard]] std::uint32_t asUnsigned32() const noexcept {
        return static_cast<std::uint32_t>(bits_);
    }
    [[nodiscard]] std::int32_t asSigned32() const noexcept {
        return static_cast<std::int32_t>(asUnsigned32());
    }
    [[nodiscard]] std::int8_t asSigned8() const noexcept { return static_cast<std::int8_t>(bits_); }

    /// True for any number but zero: 0.5 and 2^64 are true although they read as 0.
    [[nodiscard]] bool asBoolean() const noexcept { return nonZero_; }

    [[nodiscard]] bool isBoolean() const noexcept { return form_ == Form::boolean; }
    [[nodiscard]] bool isNegative() const noexcept { return form_ == Form::negativeInteger; }

    static JsonNumber fromUnsigned(std::uint64_t value) noexcept {
        return {value, Form::integer, value != 0};
    }
    static JsonNumber fromSigned(std::int64_t value) noexcept {
        return {static_cast<std::uint64_t>(value),
                value < 0 ? Form::negativeInteger : Form::integer, value != 0};
    }
    static JsonNumber fromBoolean(bool value) noexcept {
        return {value ? 1U : 0U, Form::boolean, value};
    }
    /// From a number as JSON writes it (RFC 8259, section 6). `text` must be such a number.
    static JsonNumber fromText(std::string_view text) noexcept;

 private:
    enum class Form : std::uint8_t { integer, negativeInteger, boolean };

    JsonNumber(std::uint64_t bits, Form form, bool nonZero) noexcept
        : bits_(bits), form_(form), nonZero_(nonZero) {}

    std::uint64_t bits_;
    Form form_;
    bool nonZero_;
};

using JsonArray = std::vector<JsonValue>;

/// Members in the order in which they came. Of several with one name the last counts.
class JsonObject {
 public:
    JsonObject() noexcept;
    JsonObject(std::initializer_list<JsonMember> members);
    JsonObject(const JsonObject&);
    JsonObject(JsonObject&&) noexcept;
    JsonObject& operator=(const JsonObject&);
    JsonObject& operator=(JsonObject&&) noexcept;
    ~JsonObject();

    /// The value of the last member named `key`, or null when there is none. Borrowed.
    [[nodiscard]] const JsonValue* find(std::string_view key) const noexcept;

    [[nodiscard]] JsonValue* find(std::string_view key) noexcept;

    void add(std::string key, JsonValue value);

    [[nodiscard]] const std::vector<JsonMember>& members() const noexcept { return members_; }

 private:
    std::vector<JsonMember> members_;
};

/// Text that stands in JSON as it is: printable ASCII without quotation marks and backslashes.
/// Whoever makes it of a long text spares the writer the search for what it would have to escape.
struct PlainText {
    std::string text;
};

/// A JSON value. Owns everything below it.
class JsonValue {
 public:
    JsonValue() noexcept = default;                                            ///< JSON null
    JsonValue(JsonNumber number) noexcept : content_(number) {}                // NOLINT
    JsonValue(std::string text) noexcept : content_(std::move(text)) {}        // NOLINT
    JsonValue(PlainText text) noexcept : content_(std::move(text)) {}          // NOLINT
    JsonValue(JsonArray elements) noexcept : content_(std::move(elements)) {}  // NOLINT
    JsonValue(JsonObject object) noexcept : content_(std::move(object)) {}     // NOLINT

    [[nodiscard]] bool isNull() const noexcept {
        return std::holds_alternative<std::monostate>(content_);
    }
    /// Each lends what the value holds, or null when it is of another kind.
    [[nodiscard]] const JsonNumber* number() const noexcept {
        return std::get_if<JsonNumber>(&content_);
    }
    [[nodiscard]] const std::string* string() const noexcept {
        const auto* plain = std::get_if<PlainText>(&content_);
        return plain != nullptr ? &plain->text : std::get_if<std::string>(&content_);
    }
    [[nodiscard]] const JsonArray* array() const noexcept {
        return std::get_if<JsonArray>(&content_);
    }
    [[nodiscard]] const JsonObject* object() const noexcept {
        return std::get_if<JsonObject>(&content_);
    }
    /// Whether it is a string that was given as plain text.
    [[nodiscard]] bool isPlainText() const noexcept {
        return std::holds_alternative<PlainText>(content_);
    }
    [[nodiscard]] JsonArray* array() noexcept { return std::get_if<JsonArray>(&content_); }
    [[nodiscard]] JsonObject* object() noexcept { return std::get_if<JsonObject>(&content_); }

 private:
    std::variant<std::monostate, JsonNumber, std::string, PlainText, JsonArray, JsonObject>
        content_;
};

struct JsonMember {
    std::string key;
    JsonValue value;
};

// Here, since a member is complete only now.
inline JsonObject::JsonObject() noexcept = default;
inline JsonObject::JsonObject(std::initializer_list<JsonMember> members) : members_(members) {}
inline JsonObject::JsonObject(const JsonObject&) = default;
inline JsonObject::JsonObject(JsonObject&&) noexcept = default;
inline JsonObject& JsonObject::operator=(const JsonObject&) = default;
inline JsonObject& JsonObject::operator=(JsonObject&&) noexcept = default;
inline JsonObject::~JsonObject() = default;

}  // namespace corvane
