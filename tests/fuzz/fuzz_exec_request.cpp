// Any JSON object as the arguments of "guest-exec": either there is a request that says what the
// object does, value by value, and keeps its promises, or a well-formed error, and standard error
// gets the one line that belongs to it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "commands/exec/exec_request.h"
#include "core/json_reader.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/plain_base64.h"
#include "tests/fuzz/caught_standard_error.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/given_values.h"

namespace corvane {
namespace {

const std::string* stringIn(const JsonObject& object, const char* key) {
    const JsonValue* value = object.find(key);
    return value != nullptr ? value->string() : nullptr;
}

/// The description of an error response.
std::string descriptionOf(const JsonValue& response) {
    const JsonObject* object = response.object();
    check(object != nullptr && object->members().size() == 1, "a response has one member");
    const JsonValue* error = object->find("error");
    check(error != nullptr && error->object() != nullptr, "it is an error");
    const JsonObject& fault = *error->object();
    check(fault.members().size() == 2, "an error has two members");
    const std::string* kind = stringIn(fault, "class");
    check(kind != nullptr && *kind == "GenericError", "its class is the general one");
    const std::string* description = stringIn(fault, "desc");
    check(description != nullptr && !description->empty(), "it has a description");
    return *description;
}

/// A line says what the answer says; for a stream that does not exist it has the path, too.
void checkLine(const std::string& line, const std::string& description) {
    const std::string own = "handleGuestExec: ";
    const bool same = line.empty() || line == own + description + "\n" ||
                      line == "getWindowSize: " + description + "\n";
    const std::string stream = description.substr(0, description.find(' '));
    const bool withPath = description == stream + " does not exist" &&
                          line.starts_with(own + stream + " ") &&
                          line.ends_with(" does not exist\n");
    check(same || withPath, "the line belongs to the answer");
}

/// The text under `key` of arguments that were accepted.
std::optional<std::string> textIn(const JsonObject& object, const char* key) {
    const JsonValue* value = object.find(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    check(value->string() != nullptr, "what is accepted as a text is one");
    return *value->string();
}

std::optional<std::vector<std::string>> textsIn(const JsonObject& object, const char* key) {
    const JsonValue* value = object.find(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    check(value->array() != nullptr, "what is accepted as a list is one");
    std::vector<std::string> texts;
    for (const JsonValue& element : *value->array()) {
        check(element.string() != nullptr, "its elements are texts");
        texts.push_back(*element.string());
    }
    return texts;
}

int valueOfDigit(char digit) {
    return digit <= '9' ? digit - '0' : (digit & ~0x20) - 'A' + 10;
}

/// Where a URL that was accepted leads: with the C library's numbers, and cut at its marks alone.
VsockTarget targetOf(std::string_view url) {
    url.remove_prefix(std::min(url.find("//") + 2, url.size()));
    url = url.substr(0, url.find_first_of("/?#"));
    url.remove_prefix(url.rfind('@') + 1);  // 0 when there is none
    const std::size_t colon = url.rfind(':');
    check(colon != std::string_view::npos, "a URL with a port has a colon before it");
    std::string host;
    for (std::size_t place = 0; place < colon; ++place) {
        const bool escaped = url[place] == '%';
        host += escaped ? static_cast<char>(16 * valueOfDigit(url[place + 1]) +
                                            valueOfDigit(url[place + 2]))
                        : url[place];
        place += escaped ? 2 : 0;
    }
    const long contextId = std::strtol(host.c_str(), nullptr, 10);
    std::uint32_t port = 0;
    for (const char digit : url.substr(colon + 1)) {
        port = port * 10 + static_cast<std::uint32_t>(valueOfDigit(digit));
    }
    using Limits = std::numeric_limits<std::int32_t>;
    return {static_cast<std::int32_t>(std::clamp<long>(contextId, Limits::min(), Limits::max())),
            static_cast<std::int32_t>(port)};
}

void checkTarget(const ExecRequest& request, const JsonObject& arguments) {
    const auto url = textIn(arguments, "mirel-vsock-stdio");
    check(url.has_value() == request.vsockTarget.has_value(), "a connection is there when given");
    if (!url) {
        return;
    }
    check(url->starts_with("vsock://"), "it is a URL of vsock");
    const VsockTarget target = targetOf(*url);
    check(request.vsockTarget->contextId == target.contextId &&
              request.vsockTarget->port == target.port,
          "the connection leads where the URL does");
    check(!(request.stdinPath || request.stdoutPath || request.stderrPath || request.inputData ||
            request.captureOutput),
          "a connection stands in for all streams");
}

void checkTerminal(const ExecRequest& request, const JsonObject& arguments) {
    const JsonValue* size = arguments.find("mirel-window-size");
    const JsonValue* settings = arguments.find("mirel-termios");
    check((size != nullptr) == request.windowSize.has_value() &&
              (settings != nullptr) == request.terminalSettings.has_value(),
          "a terminal's settings are there when given");
    if (size != nullptr) {
        check(size->object() != nullptr, "what is accepted as a size is an object");
        checkSize(*request.windowSize, *size->object());
    }
    if (settings != nullptr) {
        check(settings->object() != nullptr, "what is accepted as settings is an object");
        checkSettings(*request.terminalSettings, *settings->object());
    }
}

/// The id that a request names, or that the entry of this name has.
template <typename Id>
std::optional<Id> accountIn(const JsonObject& arguments, const char* idKey, const char* nameKey,
                            const std::map<std::string, Id>& entries) {
    if (const auto name = textIn(arguments, nameKey)) {
        check(entries.contains(*name), "an account that is accepted is there");
        return entries.at(*name);
    }
    if (arguments.find(idKey) == nullptr) {
        return std::nullopt;
    }
    const Id id = wordIn<Id>(arguments, idKey);
    check(std::ranges::any_of(entries, [id](const auto& entry) { return entry.second == id; }),
          "an id that is accepted is there");
    return id;
}

void checkRequest(const ExecRequest& request, const JsonObject& arguments,
                  const FakeAccounts& accounts) {
    check(textIn(arguments, "path") == request.path, "the program is the one asked for");
    check(textsIn(arguments, "arg").value_or(std::vector<std::string>()) == request.arguments,
          "its arguments are those given");
    check(textsIn(arguments, "env") == request.environment, "its environment is the one given");
    const auto input = textIn(arguments, "input-data");
    check(request.inputData == (input ? decodeSlowly(*input) : std::nullopt) &&
              request.inputData.has_value() == input.has_value(),
          "its input is the one given");
    const JsonValue* capture = arguments.find("capture-output");
    check(capture == nullptr || capture->number() != nullptr,
          "what is accepted as a number is one");
    check(request.captureOutput == (capture != nullptr && capture->number()->asBoolean()),
          "its output is kept when asked for");
    check(textIn(arguments, "mirel-working-directory") == request.workingDirectory,
          "its directory is the one given");
    check(textIn(arguments, "mirel-stdin") == request.stdinPath &&
              textIn(arguments, "mirel-stdout") == request.stdoutPath &&
              textIn(arguments, "mirel-stderr") == request.stderrPath,
          "its streams are those given");
    checkTarget(request, arguments);
    checkTerminal(request, arguments);
    check(request.user == accountIn(arguments, "mirel-uid", "mirel-user", accounts.users) &&
              request.group == accountIn(arguments, "mirel-gid", "mirel-group", accounts.groups),
          "its user and group are those given");
}

void run(std::string_view text) {
    RequestLine line;
    line.push_back(InputSlice::copyOf(text));
    const JsonOutcome outcome = readJson(std::move(line));
    const auto* value = std::get_if<JsonValue>(&outcome);
    const JsonObject* arguments = value != nullptr ? value->object() : nullptr;
    if (arguments == nullptr) {
        return;
    }
    FakePlatform platform;
    platform.accounts.users = {{"root", 0}, {"nobody", 65534}, {"a", 4294967295}};
    platform.accounts.groups = {{"root", 0}, {"daemon", 1}, {"nobody", 65533}};
    ExecRequest request;
    std::optional<JsonValue> error;
    std::string written;
    {
        const CaughtStandardError caught;
        error = readExecRequest(arguments, request);
        written = caught.text();
    }
    if (error) {
        checkLine(written, descriptionOf(*error));
    } else {
        check(written.empty(), "nothing is written without a failure");
        checkRequest(request, *arguments, platform.accounts);
    }
    check(platform.accounts.lookups.size() <= 2, "a user and a group are looked up once");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
