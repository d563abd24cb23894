#include "commands/exec/exec.h"

#include <utility>

#include "commands/exec/exec_request.h"
#include "commands/exec/launch.h"

namespace corvane {

JsonValue handleGuestExec(const JsonObject* arguments) {
    ExecRequest request;
    if (auto error = readExecRequest(arguments, request)) {
        return std::move(*error);
    }
    return launch(std::move(request));
}

}  // namespace corvane
