#include "tests/vm/support/exec_client.h"

#include <chrono>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/vm/support/base64.h"

namespace corvane::vm {
namespace {

using Arguments = ExecClient::Arguments;

std::string requestLine(std::string_view command, const Arguments& arguments) {
    return boost::json::serialize(
               boost::json::object{{"execute", command}, {"arguments", arguments}}) +
           '\n';
}

boost::json::value resultOf(std::string_view line) {
    boost::json::value answer = boost::json::parse(line);
    if (const boost::json::value* error = answer.as_object().if_contains("error")) {
        throw RequestRefused(error->at("desc").as_string().c_str());
    }
    return std::move(answer.as_object().at("return"));
}

ProgramState stateOf(const boost::json::value& result) {
    const boost::json::object& keys = result.as_object();
    const auto number = [&keys](const char* key) -> std::optional<std::int64_t> {
        const auto* value = keys.if_contains(key);
        return value == nullptr ? std::nullopt : std::optional(value->to_number<std::int64_t>());
    };
    const auto bytes = [&keys](const char* key) -> std::optional<std::string> {
        const auto* value = keys.if_contains(key);
        return value == nullptr ? std::nullopt : std::optional(decodeBase64(value->as_string()));
    };
    return {keys.at("exited").as_bool(), number("exitcode"), number("signal"), bytes("out-data"),
            bytes("err-data")};
}

/// A limit for waits that ask again and again.
class Deadline {
 public:
    explicit Deadline(Limit limit) : end_(std::chrono::steady_clock::now() + limit) {}
    void check(const std::string& what) const {
        if (std::chrono::steady_clock::now() > end_) {
            throw HangError(what);
        }
    }

 private:
    std::chrono::steady_clock::time_point end_;
};

}  // namespace

boost::json::value ExecClient::ask(std::string_view command, const Arguments& arguments) {
    host_.send(requestLine(command, arguments));
    return resultOf(host_.receiveLine());
}

std::string ExecClient::refusalOf(std::string_view command, const Arguments& arguments) {
    try {
        ask(command, arguments);
        return "";
    } catch (const RequestRefused& refused) {
        return refused.what();
    }
}

pid_t ExecClient::start(const Arguments& arguments) {
    return ask("guest-exec", arguments).at("pid").to_number<pid_t>();
}

std::vector<pid_t> ExecClient::startAll(const std::vector<Arguments>& programs) {
    std::string requests;
    for (const Arguments& program : programs) {
        requests += requestLine("guest-exec", program);
    }
    host_.sendWhileReceiving(requests);
    std::vector<pid_t> pids;
    for (std::size_t count = 0; count < programs.size(); ++count) {
        pids.push_back(resultOf(host_.receiveLine()).at("pid").to_number<pid_t>());
    }
    return pids;
}

ProgramState ExecClient::poll(pid_t pid) {
    return stateOf(ask("guest-exec-status", {{"pid", pid}}));
}

ProgramState ExecClient::awaitExit(pid_t pid, Limit limit) {
    const Deadline deadline(limit);
    for (;;) {
        ProgramState state = poll(pid);
        if (state.exited) {
            return state;
        }
        deadline.check("program " + std::to_string(pid) + " does not end");
    }
}

std::vector<ProgramState> ExecClient::awaitAll(const std::vector<pid_t>& pids, Limit limit) {
    const Deadline deadline(limit);
    std::vector<ProgramState> states(pids.size());
    for (std::size_t left = pids.size(); left > 0;) {
        // The one that was started last is asked alone until it has ended: asking for all takes
        // the guest's only processor away from them.
        while (!states[left - 1].exited) {
            states[left - 1] = poll(pids[left - 1]);
            deadline.check(std::to_string(left) + " programs do not end");
        }
        std::string requests;
        std::vector<std::size_t> asked;
        for (std::size_t index = 0; index < left; ++index) {
            if (!states[index].exited) {
                requests += requestLine("guest-exec-status", {{"pid", pids[index]}});
                asked.push_back(index);
            }
        }
        host_.sendWhileReceiving(requests);
        left = 0;
        for (const std::size_t index : asked) {
            states[index] = stateOf(resultOf(host_.receiveLine()));
            left = states[index].exited ? left : index + 1;
        }
    }
    return states;
}

std::string ExecClient::awaitOutput(pid_t pid, std::string_view text, Limit limit) {
    const Deadline deadline(limit);
    for (;;) {
        const ProgramState state = poll(pid);
        std::string output = state.output.value_or("");
        if (output.find(text) != std::string::npos) {
            return output;
        }
        if (state.exited) {
            throw EndOfStream("the program ended without '" + std::string(text) + "': " + output);
        }
        deadline.check("the program does not print '" + std::string(text) + "' but: " + output);
    }
}

ProgramState ExecClient::run(Arguments arguments, Limit limit) {
    arguments["capture-output"] = true;
    return awaitExit(start(arguments), limit);
}

std::string ExecClient::outputOf(std::string_view shellCommand) {
    ProgramState state = run(vm::shellCommand(shellCommand));
    std::string output = std::move(state.output).value_or("");
    if (state.exitCode != 0) {
        throw std::runtime_error("'" + std::string(shellCommand) +
                                 "' failed: " + state.errorOutput.value_or("") + output);
    }
    if (output.ends_with('\n')) {
        output.pop_back();
    }
    return output;
}

void ExecClient::signal(pid_t pid, int number) {
    ask("mirel-guest-signal-pid", {{"pid", pid}, {"signal", number}});
}

Arguments shellCommand(std::string_view command) {
    return {{"path", "/bin/sh"}, {"arg", {"-c", command}}};
}

}  // namespace corvane::vm
