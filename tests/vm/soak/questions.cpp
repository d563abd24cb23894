#include "tests/vm/soak/questions.h"

#include <algorithm>
#include <array>

namespace corvane::vm {
namespace {

const std::string anyError = R"({"error":{"class":"GenericError","desc":")";

std::string request(const std::string& command, const std::string& arguments) {
    return R"({"execute":")" + command + R"(","arguments":)" + arguments + "}";
}

Question refused(const std::string& command, const std::string& arguments,
                 const std::string& description) {
    return {request(command, arguments), anyError + description};
}

/// What is answered with an error, command by command. The process and the handle are nobody's.
const std::array refusals{
    refused("guest-sync", R"({"id":"1"})", "id is not a number"),
    refused("guest-sync-delimited", "{}", "id is not a number"),
    refused("guest-ping", "null", "arguments is not a dictionary"),
    refused("guest-exec", "{}", "path is not a string"),
    refused("guest-exec", R"({"path":"sh","arg":[1]})", "arg parameter is not a string"),
    refused("guest-exec", R"({"path":"sh","env":{}})", "env is not an array"),
    refused("guest-exec", R"({"path":"sh","input-data":"a b"})", "input-data is not valid"),
    refused("guest-exec", R"({"path":"sh","mirel-stdin":"/no/such"})", "mirel-stdin does not"),
    refused("guest-exec", R"({"path":"sh","mirel-user":"no-such-user"})", "user no-such-user"),
    refused("guest-exec", R"({"path":"sh","mirel-vsock-stdio":"x","capture-output":1})",
            "mirel-vsock-stdio is mutually"),
    refused("guest-exec", R"({"path":"sh","mirel-window-size":{"rows":"1"}})",
            "rows is not a number"),
    refused("guest-exec-status", R"({"pid":"1"})", "pid is not a number"),
    refused("guest-exec-status", R"({"pid":5000000})", "invalid PID"),
    refused("mirel-guest-signal-pid", R"({"pid":5000000,"signal":9})", "failed to send signal"),
    refused("mirel-guest-signal-pid", R"({"pid":5000000,"signal":28})", "failed to get path"),
    refused("guest-file-open", R"({"path":"/no/such/file"})", "invalid path or mode"),
    refused("guest-file-open", R"({"path":"/tmp","mode":"w"})", "invalid path or mode"),
    refused("guest-file-close", R"({"handle":1})", "handle is not a valid file"),
    refused("guest-file-read", R"({"handle":1,"count":-1})", "handle is not a valid file"),
    refused("guest-file-write", R"({"handle":true,"buf-b64":"QQ=="})", "handle is not a valid"),
    refused("guest-file-seek", R"({"handle":"1"})", "handle is not a number"),
    refused("guest-file-flush", "{}", "handle is not a number"),
    refused("mirel-guest-file-vsock-read", R"({"handle":1,"cid":2,"port":1})", "handle is not a"),
    refused("mirel-guest-file-vsock-write", R"({"handle":0})", "handle is not a valid file"),
    refused("guest-shutdown", R"({"mode":"sideways"})", "unsupported mode"),
    refused("guest-shutdown", R"({"mode":1})", "mode is not a string"),
    refused("guest-set-time", R"({"time":"0"})", "time is not a number"),
    refused("mirel-guest-set-remote-login", R"({"enabled":"no"})", "enabled is not a number"),
    Question{R"({"execute":"no-such-command"})",
             R"({"error":{"class":"CommandNotFound","desc":"Invalid command 'no-such-command')"},
    Question{"{}", anyError + "cannot find 'execute' key"},
    Question{"[1,2,3]", anyError + "request is not a dictionary"},
    Question{"\"text\"", anyError + "invalid JSON"},
    Question{"{\"execute\":\"guest-ping\"", anyError + "invalid JSON"},
};

/// Bytes that are a line, and neither empty nor the marker that drops it.
std::string randomLine(Dice& dice) {
    std::string line = dice.bytes(dice.between(1, 200));
    std::ranges::replace(line, '\n', ' ');
    std::ranges::replace(line, '\xFF', '{');
    return "}" + line;
}

Question answered(Dice& dice) {
    const std::string id = std::to_string(dice.below(1'000'000));
    switch (dice.below(7)) {
        case 0:
            return {R"({"execute":"guest-ping"})", R"({"return":{}})"};
        case 1:
            return {request("guest-sync", R"({"id":)" + id + "}"), R"({"return":)" + id + "}"};
        case 2:
            return {request("guest-sync-delimited", R"({"id":)" + id + "}"),
                    "\xFF{\"return\":" + id + "}"};
        case 3:
            return {R"({"execute":"guest-info"})", R"({"return":{)"};
        case 4:
            return {R"({"execute":"guest-get-time"})", R"({"return":{"time":)"};
        case 5:
            return {R"({"execute":"guest-network-get-interfaces"})", R"({"return":[)"};
        default:
            return {request("mirel-guest-signal-pid", R"({"pid":1,"signal":0})"),
                    R"({"return":{}})"};
    }
}

Question longLine(Dice& dice) {
    const std::string filler(dice.between(1, 300'000), 'x');
    switch (dice.below(3)) {
        case 0:
            return {request("guest-ping", R"({"text":")" + filler + "\"}"), R"({"return":{}})"};
        case 1:
            return {std::string(dice.between(600, 50'000), '['), anyError + "invalid JSON"};
        default:
            return {filler, anyError + "invalid JSON"};
    }
}

}  // namespace

Question randomQuestion(Dice& dice) {
    if (dice.oneIn(20)) {
        return longLine(dice);
    }
    if (dice.oneIn(10)) {
        return {randomLine(dice), anyError};
    }
    return dice.oneIn(2) ? answered(dice) : refusals[dice.below(refusals.size())];
}

}  // namespace corvane::vm
