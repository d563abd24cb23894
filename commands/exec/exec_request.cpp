#include "commands/exec/exec_request.h"

#include <sys/stat.h>

#include "commands/exec/terminal_settings.h"
#include "commands/exec/window_size.h"
#include "core/arguments.h"
#include "core/base64.h"
#include "core/message.h"
#include "platform/accounts.h"
#include "platform/platform.h"

namespace corvane {

namespace {

constexpr char handlerName[] = "handleGuestExec";

/// Whether there is anything at `path`, symbolic links followed.
bool exists(const std::string& path) {
    struct stat status {};
    return path.find('\0') == std::string::npos && ::stat(path.c_str(), &status) == 0;
}

std::string readProgram(ArgumentReader& reader) {
    const std::string* path = reader.requireString("path");
    return path ? *path : std::string();
}

std::optional<std::string> readInputData(ArgumentReader& reader) {
    const std::string* text = reader.optionalString("input-data");
    if (!text) {
        return std::nullopt;
    }
    std::optional<std::string> bytes = decodeBase64(*text);
    if (!bytes) {
        reader.failQuietly("input-data is not valid base64");
    }
    return bytes;
}

bool readCaptureOutput(ArgumentReader& reader) {
    const auto number = reader.optionalNumber("capture-output");
    return number && number->asBoolean();
}

std::optional<std::string> readWorkingDirectory(ArgumentReader& reader) {
    const std::string* path = reader.optionalString("mirel-working-directory");
    if (!path) {
        return std::nullopt;
    }
    if (!exists(*path)) {
        reader.fail("mirel-working-directory " + *path + " does not exist");
    }
    return *path;
}

/// The host learns which stream it was, the guest's log also which path.
std::optional<std::string> readStreamPath(ArgumentReader& reader, const std::string& key) {
    const std::string* path = reader.optionalString(key.c_str());
    if (!path) {
        return std::nullopt;
    }
    if (!exists(*path)) {
        reader.fail(key + " does not exist", key + " " + *path + " does not exist");
    }
    return *path;
}

bool hasOtherStreams(const ExecRequest& request) {
    return request.stdinPath || request.stdoutPath || request.stderrPath || request.inputData ||
           request.captureOutput;
}

/// Reads the connection that stands in for all streams of `request`, which have been read.
std::optional<VsockTarget> readVsockTarget(ArgumentReader& reader, const ExecRequest& request) {
    const JsonValue* value = reader.optionalValue("mirel-vsock-stdio");
    if (!value) {
        return std::nullopt;
    }
    const std::string* url = value->string();
    if (!url) {
        reader.failQuietly("mirel-vsock-stdio is not a string");
        return std::nullopt;
    }
    if (hasOtherStreams(request)) {
        reader.failQuietly("mirel-vsock-stdio is mutually exclusive with other stdio flags");
        return std::nullopt;
    }
    const auto target = parseVsockUrl(*url);
    if (!target) {
        reader.failQuietly("mirel-vsock-stdio is invalid (expecting vsock://cid:port)");
    }
    return target;
}

std::optional<winsize> readWindowSize(ArgumentReader& reader) {
    const JsonValue* value = reader.optionalValue("mirel-window-size");
    if (!value) {
        return std::nullopt;
    }
    winsize size{};
    reader.failWith(getWindowSize(*value, size));
    return size;
}

std::optional<TerminalSettings> readTerminalSettings(ArgumentReader& reader) {
    const JsonValue* value = reader.optionalValue("mirel-termios");
    if (!value) {
        return std::nullopt;
    }
    TerminalSettings settings;
    reader.failWith(getTerminalSettings(handlerName, *value, settings));
    return settings;
}

/// What tells users from groups: a word, two keys and two look-ups.
template <typename Id>
struct AccountKind {
    const char* word;
    const char* idKey;
    const char* nameKey;
    SystemResult<std::optional<Id>> (Accounts::*byId)(Id id);
    SystemResult<std::optional<Id>> (Accounts::*byName)(const std::string& name);
};

constexpr AccountKind<uid_t> users{"user", "mirel-uid", "mirel-user", &Accounts::userById,
                                   &Accounts::userByName};
constexpr AccountKind<gid_t> groups{"group", "mirel-gid", "mirel-group", &Accounts::groupById,
                                    &Accounts::groupByName};

/// The id that a look-up has found. `account` is what it is called in messages.
template <typename Id>
std::optional<Id> takeId(ArgumentReader& reader, const std::string& account,
                         SystemResult<std::optional<Id>> found) {
    if (!found.ok()) {
        reader.failQuietly("failed to find " + account + ": " + errorText(found.error()));
        return std::nullopt;
    }
    if (!found.value()) {
        reader.failQuietly(account + " does not exist");
    }
    return found.value();
}

template <typename Id>
std::optional<Id> readAccount(ArgumentReader& reader, const AccountKind<Id>& kind) {
    const std::string word = kind.word;
    if (reader.has(kind.idKey) && reader.has(kind.nameKey)) {
        reader.failQuietly(std::string(kind.nameKey) + " and " + kind.idKey +
                           " cannot both be specified");
    }
    if (const auto id = reader.optionalNumber(kind.idKey)) {
        // Hosts know large ids by their negative text.
        return takeId(reader, word + " " + std::to_string(id->asSigned32()),
                      (platform().accounts.*kind.byId)(id->asUnsigned32()));
    }
    if (const std::string* name = reader.optionalString(kind.nameKey)) {
        return takeId(reader, word + " " + *name, (platform().accounts.*kind.byName)(*name));
    }
    return std::nullopt;
}

}  // namespace

std::optional<JsonValue> readExecRequest(const JsonObject* arguments, ExecRequest& request) {
    // The order is part of the interface: a request with several faults is told the first.
    ArgumentReader reader(handlerName, arguments);
    request.path = readProgram(reader);
    request.arguments = reader.optionalStrings("arg").value_or(std::vector<std::string>());
    request.environment = reader.optionalStrings("env");
    request.inputData = readInputData(reader);
    request.captureOutput = readCaptureOutput(reader);
    request.workingDirectory = readWorkingDirectory(reader);
    request.stdinPath = readStreamPath(reader, "mirel-stdin");
    request.stdoutPath = readStreamPath(reader, "mirel-stdout");
    request.stderrPath = readStreamPath(reader, "mirel-stderr");
    request.vsockTarget = readVsockTarget(reader, request);
    request.windowSize = readWindowSize(reader);
    request.terminalSettings = readTerminalSettings(reader);
    request.user = readAccount(reader, users);
    request.group = readAccount(reader, groups);
    return reader.failed() ? std::optional(reader.takeError()) : std::nullopt;
}

}  // namespace corvane
