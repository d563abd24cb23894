#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/json_value.h"

namespace corvane {

/// For commands that read absent arguments as arguments without a member: `arguments`, or an object
/// that is empty and lives for good.
const JsonObject* orNone(const JsonObject* arguments) noexcept;

/// The vocabulary in which handlers read their arguments, in a fixed order: the first failure wins,
/// and every read after it is without effect and gives a default.
///
///     ArgumentReader reader("handleGuestSync", arguments);
///     const auto id = reader.requireNumber("id");
///     if (reader.failed()) {
///         return reader.takeError();
///     }
///
/// It knows the rule of the two channels: a failed check writes "<handler>: <message>\n" to
/// standard error and answers the bare message, but for "missing arguments", which is not written.
/// JSON null is a value of no other type: present, and failing every check. Borrows the handler's
/// name and the arguments. One thread.
class ArgumentReader {
 public:
    /// Fails with "missing arguments" when `arguments` is null.
    ArgumentReader(const char* handler, const JsonObject* arguments);

    /// Reads the members of an argument that is an object itself: `value`, which stands under
    /// `key`. Fails with "<key> is not a dictionary" when it is of another type.
    ArgumentReader(const char* handler, const char* key, const JsonValue& value);

    /// Each reads a mandatory argument and fails with "<key> is not a ..." when it is absent or of
    /// another type. Strings, arrays and objects are lent, null after a failure; a boolean passes
    /// as a number.
    JsonNumber requireNumber(const char* key);
    const std::string* requireString(const char* key);
    const JsonArray* requireArray(const char* key);
    const JsonObject* requireObject(const char* key);

    /// The same for arguments that may be absent: nothing when they are, or after a failure.
    std::optional<JsonNumber> optionalNumber(const char* key);
    const std::string* optionalString(const char* key);
    const JsonArray* optionalArray(const char* key);
    const JsonObject* optionalObject(const char* key);

    /// Copies of an array's strings. An element of another type fails with
    /// "<key> parameter is not a string".
    std::optional<std::vector<std::string>> optionalStrings(const char* key);

    /// What stands under `key`, of whatever type. Lent, null when absent or after a failure.
    [[nodiscard]] const JsonValue* optionalValue(const char* key) const;

    /// Whether `key` is there, of whatever type.
    [[nodiscard]] bool has(const char* key) const;

    /// Fails with a message of the handler's own, on both channels, or in the answer alone.
    /// Without effect after an earlier failure.
    void fail(std::string message);
    void failQuietly(std::string message);

    /// Fails with one text in the answer and another, `written`, on standard error.
    void fail(std::string message, std::string_view written);

    /// Fails with the error response of another reader, which has written what was to be written.
    /// Without effect when there is none.
    void failWith(std::optional<JsonValue> error);

    [[nodiscard]] bool failed() const noexcept { return error_.has_value(); }

    /// The error response of the first failure; only when `failed()`.
    [[nodiscard]] JsonValue takeError();

 private:
    template <typename Held>
    const Held* checked(const char* key, const Held* (*heldBy)(const JsonValue&),
                        const char* complaint);

    const char* handler_;
    const JsonObject* arguments_;
    std::optional<JsonValue> error_;
};

}  // namespace corvane
