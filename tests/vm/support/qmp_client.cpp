#include "tests/vm/support/qmp_client.h"

#include <stdexcept>

namespace corvane::vm {

QmpClient::QmpClient(const std::string& socketPath) : socket_(socketPath) {
    socket_.receiveLine();  // the greeting
    execute("qmp_capabilities");
}

std::string QmpClient::execute(std::string_view command) {
    socket_.send("{\"execute\":\"" + std::string(command) + "\"}\n");
    for (;;) {
        std::string line = socket_.receiveLine();
        if (line.starts_with("{\"return\"")) {
            return line;
        }
        if (line.starts_with("{\"error\"")) {
            throw std::runtime_error(line);
        }
        events_.push_back(std::move(line));
    }
}

std::string QmpClient::awaitEvent(std::string_view name, Limit limit) {
    const std::string member = "\"event\": \"" + std::string(name) + '"';
    for (;;) {
        if (events_.empty()) {
            events_.push_back(socket_.receiveLine(limit));
        }
        std::string line = std::move(events_.front());
        events_.pop_front();
        if (line.find(member) != std::string::npos) {
            return line;
        }
    }
}

}  // namespace corvane::vm
