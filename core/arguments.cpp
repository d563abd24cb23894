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

ArgumentReader::ArgumentReader(const char* handler, const JsonObject* arguments)
    : handler_(handler), arguments_(arguments) {
    if (!arguments_) {
        failQuietly("missing arguments");
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
    return has(key) ? std::optional(requireNumber(key)) : std::nullopt;
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

bool ArgumentReader::has(const char* key) const {
    return find(key) != nullptr;
}

void ArgumentReader::fail(std::string message) {
    if (failed()) {
        return;
    }
    writeDiagnostic(std::string(handler_) + ": " + message + "\n");
    failQuietly(std::move(message));
}

void ArgumentReader::failQuietly(std::string message) {
    if (!failed()) {
        error_ = makeErrorResponse(genericError, std::move(message));
    }
}

JsonValue ArgumentReader::takeError() {
    return std::move(*error_);
}

template <typename Held>
const Held* ArgumentReader::checked(const char* key, const Held* (*heldBy)(const JsonValue&),
                                    const char* complaint) {
    const JsonValue* value = find(key);
    const Held* held = value ? heldBy(*value) : nullptr;
    if (!held) {
        fail(std::string(key) + complaint);
    }
    return held;
}

const JsonValue* ArgumentReader::find(const char* key) const {
    return failed() ? nullptr : arguments_->find(key);
}

}  // namespace corvane
