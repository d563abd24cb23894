// Any JSON object as the arguments of "guest-exec": either there is a request that keeps its
// promises, or a well-formed error, and standard error gets the one line that belongs to it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "commands/exec/exec_request.h"
#include "core/json_reader.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/caught_standard_error.h"
#include "tests/fuzz/check.h"

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

void checkRequest(const ExecRequest& request, const JsonObject& arguments) {
    const std::string* path = stringIn(arguments, "path");
    check(path != nullptr && *path == request.path, "the program is the one asked for");
    const auto present = [&arguments](const char* key) { return arguments.find(key) != nullptr; };
    check(present("env") == request.environment.has_value(), "an environment is there when given");
    check(present("input-data") == request.inputData.has_value(), "input is there when given");
    check(present("mirel-working-directory") == request.workingDirectory.has_value(),
          "a directory is there when given");
    check(present("mirel-stdin") == request.stdinPath.has_value() &&
              present("mirel-stdout") == request.stdoutPath.has_value() &&
              present("mirel-stderr") == request.stderrPath.has_value(),
          "streams are there when given");
    check(present("mirel-vsock-stdio") == request.vsockTarget.has_value(),
          "a connection is there when given");
    check(present("mirel-window-size") == request.windowSize.has_value() &&
              present("mirel-termios") == request.terminalSettings.has_value(),
          "a terminal's settings are there when given");
    check((present("mirel-uid") || present("mirel-user")) == request.user.has_value() &&
              (present("mirel-gid") || present("mirel-group")) == request.group.has_value(),
          "user and group are there when given");
    check(!request.vsockTarget || !(request.stdinPath || request.stdoutPath || request.stderrPath ||
                                    request.inputData || request.captureOutput),
          "a connection stands in for all streams");
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
    const FakePlatform platform;
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
        checkRequest(request, *arguments);
    }
    check(platform.accounts.lookups.size() <= 2, "a user and a group are looked up once");
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run({reinterpret_cast<const char*>(data), size});
    return 0;
}
