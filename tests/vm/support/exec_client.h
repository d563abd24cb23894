#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "tests/vm/support/host_client.h"

namespace corvane::vm {

/// The agent answered with an error; what() is its description.
struct RequestRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What guest-exec-status says, decoded.
struct ProgramState {
    bool exited = false;
    std::optional<std::int64_t> exitCode;
    std::optional<std::int64_t> signal;
    std::optional<std::string> output;
    std::optional<std::string> errorOutput;
};

/// The commands that start, watch and signal programs, as a host uses them.
class ExecClient {
 public:
    using Arguments = boost::json::object;

    /// Speaks over `host`, which must live longer and be in step with the agent.
    explicit ExecClient(HostClient& host) : host_(host) {}

    /// What the agent returns; throws RequestRefused when it answers with an error.
    boost::json::value ask(std::string_view command, const Arguments& arguments);
    /// The description of the error with which the agent answers, and "" when it does not.
    std::string refusalOf(std::string_view command, const Arguments& arguments);

    /// Starts a program: the arguments of guest-exec.
    pid_t start(const Arguments& arguments);
    /// Starts many, without waiting for one answer before the next request.
    std::vector<pid_t> startAll(const std::vector<Arguments>& programs);

    /// Asks once. The state after the end can be had only once.
    ProgramState poll(pid_t pid);
    /// Asks until the program has ended, which is the protocol's way to wait for it.
    ProgramState awaitExit(pid_t pid, Limit limit = hangLimit);
    /// The same for many; their states in the same order.
    std::vector<ProgramState> awaitAll(const std::vector<pid_t>& pids, Limit limit = hangLimit);
    /// Asks until the captured output holds `text`; returns the output.
    std::string awaitOutput(pid_t pid, std::string_view text, Limit limit = hangLimit);

    /// Starts a program with its output captured and waits for its end.
    ProgramState run(Arguments arguments, Limit limit = hangLimit);
    /// The output of a shell command that must succeed, without a final line feed.
    std::string outputOf(std::string_view shellCommand);

    void signal(pid_t pid, int number);

 private:
    HostClient& host_;
};

/// Arguments of guest-exec for a command of the guest's shell.
ExecClient::Arguments shellCommand(std::string_view command);

}  // namespace corvane::vm
