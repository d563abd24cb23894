#include "commands/files/file_seek.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>

#include "commands/files/file_answers.h"
#include "commands/files/file_handle_table.h"
#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"

namespace corvane {

namespace {

std::optional<int> namedOrigin(std::string_view name) {
    if (name == "set") {
        return SEEK_SET;
    }
    if (name == "cur") {
        return SEEK_CUR;
    }
    return name == "end" ? std::optional(SEEK_END) : std::nullopt;
}

/// A number goes to fseek(3) as it is, which knows what it means.
int requireOrigin(ArgumentReader& reader) {
    const JsonValue* whence = reader.optionalValue("whence");
    if (const std::string* name = whence != nullptr ? whence->string() : nullptr) {
        const auto origin = namedOrigin(*name);
        if (!origin) {
            reader.failQuietly("unknown whence value");
        }
        return origin.value_or(SEEK_SET);
    }
    const JsonNumber* number = whence != nullptr ? whence->number() : nullptr;
    if (number == nullptr) {
        reader.fail("whence is not a number or string");
        return SEEK_SET;
    }
    return number->asSigned32();
}

JsonValue describePosition(std::FILE* stream) {
    JsonObject result;
    result.add("eof", JsonNumber::fromBoolean(std::feof(stream) != 0));
    result.add("position",
               JsonNumber::fromUnsigned(static_cast<std::uint64_t>(std::ftell(stream))));
    return makeSuccessResponse(std::move(result));
}

}  // namespace

JsonValue handleGuestFileSeek(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestFileSeek", arguments);
    std::FILE* const stream = requireFile(reader);
    const std::int64_t offset = reader.requireNumber("offset").asSigned64();
    const int origin = requireOrigin(reader);
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    if (std::fseek(stream, static_cast<long>(offset), origin) != 0) {
        return streamFailure("fseek", errno);
    }
    return describePosition(stream);
}

}  // namespace corvane
