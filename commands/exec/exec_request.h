#pragma once

#include <sys/ioctl.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "commands/exec/vsock_url.h"
#include "core/json_value.h"
#include "platform/terminals.h"

namespace corvane {

/// What "guest-exec" is to start, checked. All that the launch gets to know. What was not given is
/// absent.
struct ExecRequest {
    std::string path;  ///< the program, searched along PATH when without a slash; also argv[0]
    std::vector<std::string> arguments;                   ///< argv from 1 on
    std::optional<std::vector<std::string>> environment;  ///< "NAME=value", replaces ours
    std::optional<std::string> inputData;                 ///< bytes for standard input
    bool captureOutput = false;
    std::optional<std::string> workingDirectory;  ///< this and the next three: something was there
    std::optional<std::string> stdinPath;
    std::optional<std::string> stdoutPath;
    std::optional<std::string> stderrPath;
    std::optional<VsockTarget> vsockTarget;  ///< only without input data, stream paths and capture
    std::optional<winsize> windowSize;
    std::optional<TerminalSettings> terminalSettings;
    std::optional<uid_t> user;  ///< of an entry in the database, as is the group
    std::optional<gid_t> group;
};

/// Checks the arguments of "guest-exec" in their fixed order and fills `request`. Returns nothing,
/// or the error response of the first check that failed; `request` is of no use then, and what was
/// wrong has been written to standard error where that is due. `request` must be new. Opens and
/// starts nothing: looks only whether paths exist, and users and groups up. `arguments` is null
/// when there were none. Main thread. Throws std::bad_alloc.
std::optional<JsonValue> readExecRequest(const JsonObject* arguments, ExecRequest& request);

}  // namespace corvane
