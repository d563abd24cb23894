#include "commands/system/guest_time.h"

#include <cstdint>

#include "core/arguments.h"
#include "core/heap.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "platform/clock.h"
#include "platform/platform.h"

namespace corvane {

namespace {
constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
}

JsonValue handleGuestSetTime(const JsonObject* arguments) {
    ArgumentReader reader("handleGuestSetTime", orNone(arguments));
    const std::uint64_t time = reader.requireNumber("time").asUnsigned64();
    if (reader.failed()) {
        return reader.takeError();
    }
    requireMemory(roomForLine);
    JsonValue response = makeSuccessResponse(JsonObject());
    std::timespec split{};
    split.tv_sec = static_cast<std::time_t>(time / nanosecondsPerSecond);
    split.tv_nsec = static_cast<long>(time % nanosecondsPerSecond);
    if (!platform().clock.set(split)) {
        return makeErrorResponse(genericError, "failed to set time");
    }
    return response;
}

JsonValue handleGuestGetTime() {
    const auto now = platform().clock.read();
    if (!now) {
        return makeErrorResponse(genericError, "failed to get time");
    }
    const std::uint64_t time = static_cast<std::uint64_t>(now->tv_sec) * nanosecondsPerSecond +
                               static_cast<std::uint64_t>(now->tv_nsec);
    JsonObject result;
    result.add("time", JsonNumber::fromUnsigned(time));
    return makeSuccessResponse(std::move(result));
}

}  // namespace corvane
