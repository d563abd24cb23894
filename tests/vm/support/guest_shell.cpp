#include "tests/vm/support/guest_shell.h"

#include <sstream>
#include <stdexcept>

#include "tests/vm/support/base64.h"

namespace corvane::vm {
void GuestShell::awaitReady(Limit limit) {
    while (!socket_.receiveLine(limit).ends_with("ready")) {
    }
}

CommandResult GuestShell::run(std::string_view command, Limit limit) {
    const std::string id = std::to_string(++lastId_);
    socket_.send(id + ' ' + encodeBase64(command) + '\n');
    for (;;) {
        std::istringstream answer(socket_.receiveLine(limit));
        std::string answeredId;
        std::string output;
        CommandResult result;
        answer >> answeredId >> result.status >> output;
        // Answers to commands that were given up on are passed over.
        if (answeredId == id) {
            result.output = decodeBase64(output);
            return result;
        }
    }
}

std::string GuestShell::check(std::string_view command, Limit limit) {
    CommandResult result = run(command, limit);
    if (result.status != 0) {
        throw std::runtime_error("status " + std::to_string(result.status) + " of '" +
                                 std::string(command) + "': " + result.output);
    }
    if (result.output.ends_with('\n')) {
        result.output.pop_back();
    }
    return result.output;
}

}  // namespace corvane::vm
