#include "core/arguments.h"

#include "core/message.h"

namespace corvane {

namespace {

constexpr char notNumber[] = " is not a number";
constexpr char notString[] = " is not a string";
constexpr char notArray[] = " is not an array";
constexpr char notObject[] = " is not a dictionary";

const JsonNumber* numberOf(const JsonValue& value) {
    return value.number();
}
const std::string* stringOf(const JsonValue& value) {
    return value.string();
}
const JsonArray* arrayOf(const JsonValue& value) {
    return value.array();
}
const JsonObject* objectOf(const JsonValue& value) {
    return value.object();
}

}  // namespace

const JsonObject* orNone(const JsonObject* arguments) noexcept {
    static const JsonObject none;
    return arguments != nullptr ? arguments : &none;
}

ArgumentReader::ArgumentReader(const char* handler, const JsonObject* arguments)
    : handler_(handler), arguments_(arguments) {
    if (!arguments_) {
        failQuietly("missing arguments");
    }
}

ArgumentReader::ArgumentReader(const char* handler, const char* key, const JsonValue& value)
    : handler_(handler), arguments_(value.object()) {
    if (!arguments_) {
        fail(std::string(key) + notObject);
    }
}

JsonNumber ArgumentReader::requireNumber(const char* key) {
    const JsonNumber* number = checked(key, numberOf, notNumber);
    return number ? *number : JsonNumber::fromUnsigned(0);
}

const std::string* ArgumentReader::requireString(const char* key) {
    return checked(key, stringOf, notString);
}

const JsonArray* ArgumentReader::requireArray(const char* key) {
    return checked(key, arrayOf, notArray);
}

const JsonObject* ArgumentReader::requireObject(const char* key) {
    return checked(key, objectOf, notObject);
}

std::optional<JsonNumber> ArgumentReader::optionalNumber(const char* key) {
    const JsonNumber* number = has(key) ? checked(key, numberOf, notNumber) : nullptr;
    return number ? std::optional(*number) : std::nullopt;
}

const std::string* ArgumentReader::optionalString(const char* key) {
    return has(key) ? requireString(key) : nullptr;
}

const JsonArray* ArgumentReader::optionalArray(const char* key) {
    return has(key) ? requireArray(key) : nullptr;
}

const JsonObject* ArgumentReader::optionalObject(const char* key) {
    return has(key) ? requireObject(key) : nullptr;
}

std::optional<std::vector<std::string>> ArgumentReader::optionalStrings(const char* key) {
    const JsonArray* elements = optionalArray(key);
    if (!elements) {
        return std::nullopt;
    }
    std::vector<std::string> strings;
    strings.reserve(elements->size());
    for (const JsonValue& element : *elements) {
        const std::string* string = element.string();
        if (!string) {
            fail(std::string(key) + " parameter" + notString);
            return std::nullopt;
        }
        strings.push_back(*string);
    }
    return strings;
}

const JsonValue* ArgumentReader::optionalValue(const char* key) const {
    return failed() ? nullptr : arguments_->find(key);
}

bool ArgumentReader::has(const char* key) const {
    return optionalValue(key) != nullptr;
}

void ArgumentReader::fail(std::string message) {
    const std::string written = message;
    fail(std::move(message), written);
}

void ArgumentReader::fail(std::string message, std::string_view written) {
    if (failed()) {
        return;
    }
    writeDiagnostic(std::string(handler_).append(": ").append(written).append("\n"));
    failQuietly(std::move(message));
}

void ArgumentReader::failQuietly(std::string message) {
    if (!failed()) {
        error_ = makeErrorResponse(genericError, std::move(message));
    }
}

void ArgumentReader::failWith(std::optional<JsonValue> error) {
    if (!failed()) {
        error_ = std::move(error);
    }
}

JsonValue ArgumentReader::takeError() {
    return std::move(*error_);
}

template <typename Held>
const Held* ArgumentReader::checked(const char* key, const Held* (*heldBy)(const JsonValue&),
                                    const char* complaint) {
    const JsonValue* value = optionalValue(key);
    const Held* held = value ? heldBy(*value) : nullptr;
    if (!held) {
        fail(std::string(key) + complaint);
    }
    return held;
}

}  // namespace corvane
