#include "tests/vm/faults/scenarios.h"

#include <vector>

#include "tests/vm/support/base64.h"
#include "tests/vm/support/wire_terminal.h"

namespace corvane::vm {
namespace {

using boost::json::object;
using boost::json::value;

void expect(bool condition, const std::string& otherwise) {
    if (!condition) {
        throw Deviation(otherwise);
    }
}

std::string textOf(const value& result, const char* key) {
    return decodeBase64(result.at(key).as_string());
}

object shell(const char* command) {
    return {{"path", "/bin/sh"}, {"arg", {"-c", command}}};
}

/// The answer that tells of a program's end, with the exit code that was expected.
value endOf(FaultBench& bench, const value& pid, int exitCode = 0) {
    bench.awaitEndOf(pid.to_number<pid_t>());
    const value result = bench.ask("guest-exec-status", {{"pid", pid}});
    expect(result.at("exited").as_bool(), "not exited");
    const value& code = result.at("exitcode");
    expect(code == exitCode, "exitcode " + std::to_string(code.to_number<int>()));
    return result;
}

/// For scenarios that may be stopped on the way: the program's end is taken whatever comes.
class StartedProgram {
 public:
    StartedProgram(FaultBench& bench, const object& arguments)
        : bench_(bench), pid_(bench.ask("guest-exec", arguments).at("pid")) {}

    value end(int exitCode = 0) { return endOf(bench_, pid_, exitCode); }

 private:
    FaultBench& bench_;
    value pid_;
};

void start(FaultBench& bench) {
    bench.host().synchronise();
}

void ping(FaultBench& bench) {
    bench.ask("guest-ping");
}

void reconnect(FaultBench& bench) {
    bench.replaceHost();
}

void execWithoutStreams(FaultBench& bench) {
    StartedProgram(bench, {{"path", "true"}}).end();
}

void execWithCapture(FaultBench& bench) {
    object arguments = shell("cat; echo error >&2; exit 3");
    arguments["capture-output"] = true;
    arguments["input-data"] = encodeBase64("input");
    const value result = StartedProgram(bench, arguments).end(3);
    expect(textOf(result, "out-data") == "input", "out-data \"" + textOf(result, "out-data") + "\"");
    expect(textOf(result, "err-data") == "error\n",
           "err-data \"" + textOf(result, "err-data") + "\"");
}

void execWithPaths(FaultBench& bench) {
    bench.shell().check("cd /run; echo input > fault.in; : > fault.out; : > fault.err");
    object arguments = shell("cat; pwd; echo error >&2");
    arguments["mirel-stdin"] = "/run/fault.in";
    arguments["mirel-stdout"] = "/run/fault.out";
    arguments["mirel-stderr"] = "/run/fault.err";
    arguments["mirel-working-directory"] = "/tmp";
    arguments["mirel-uid"] = 0;
    arguments["mirel-gid"] = 0;
    StartedProgram(bench, arguments).end();
    const std::string output = bench.shell().check("cat /run/fault.out /run/fault.err");
    expect(output == "input\n/tmp\nerror", "output \"" + output + "\"");
}

void execOnVsock(FaultBench& bench) {
    object arguments = shell("cat");
    arguments["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(bench.peer().listen());
    StartedProgram program(bench, arguments);
    bench.peer().awaitConnection();
    bench.peer().send("through and back");
    bench.peer().finishSending();
    const std::string back = bench.peer().receiveAll();
    program.end();
    expect(back == "through and back", "echo \"" + back + "\"");
}

void execOnTerminal(FaultBench& bench) {
    object arguments = shell("stty size; cat");
    arguments["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(bench.peer().listen());
    arguments["mirel-termios"] = cookedTerminal.record();
    arguments["mirel-window-size"] = {{"rows", 30}, {"columns", 100}};
    StartedProgram program(bench, arguments);
    bench.peer().awaitConnection();
    bench.peer().await("30 100\r\n");
    bench.peer().send("line\n");
    bench.peer().await("line\r\nline\r\n");
    bench.peer().send("\x04");
    bench.peer().receiveAll();
    program.end();
}

void file(FaultBench& bench) {
    const value handle = bench.ask("guest-file-open", {{"path", "/run/fault.file"}, {"mode", "w+"}});
    bench.ask("guest-file-write", {{"handle", handle}, {"buf-b64", encodeBase64("content")}});
    bench.ask("guest-file-flush", {{"handle", handle}});
    bench.ask("guest-file-seek", {{"handle", handle}, {"offset", 0}, {"whence", "set"}});
    const value read = bench.ask("guest-file-read", {{"handle", handle}});
    bench.ask("guest-file-close", {{"handle", handle}});
    expect(textOf(read, "buf-b64") == "content", "read \"" + textOf(read, "buf-b64") + "\"");
}

void transferToHost(FaultBench& bench) {
    bench.shell().check("echo content > /run/fault.file");
    const value handle = bench.ask("guest-file-open", {{"path", "/run/fault.file"}});
    const unsigned port = bench.peer().listen();
    bench.send("mirel-guest-file-vsock-read", {{"handle", handle}, {"cid", 2}, {"port", port}});
    const value result = bench.receive();
    bench.ask("guest-file-close", {{"handle", handle}});
    expect(result.at("count") == 8, "count");
}

void interfaces(FaultBench& bench) {
    const value list = bench.ask("guest-network-get-interfaces");
    expect(list.as_array().size() == 1, "interfaces " + std::to_string(list.as_array().size()));
}

void clock(FaultBench& bench) {
    const value time = bench.ask("guest-get-time").at("time");
    bench.ask("guest-set-time", {{"time", time}});
}

void info(FaultBench& bench) {
    const value list = bench.ask("guest-info").at("supported_commands");
    expect(list.as_array().size() == 19, std::to_string(list.as_array().size()) + " commands");
}

const std::vector<Scenario> list = {
    {"start-up", start, true},
    {"ping", ping},
    {"reconnect", reconnect},
    {"info", info},
    {"exec", execWithoutStreams},
    {"exec capture", execWithCapture},
    {"exec paths", execWithPaths},
    {"exec vsock", execOnVsock},
    {"exec terminal", execOnTerminal},
    {"file", file},
    {"transfer to host", transferToHost},
    {"interfaces", interfaces},
    {"clock", clock},
};

}  // namespace

std::span<const Scenario> scenarios() {
    return list;
}

}  // namespace corvane::vm
