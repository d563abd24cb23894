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
    value result = bench.ask("guest-exec-status", {{"pid", pid}});
    expect(result.at("exited").as_bool(), "not exited");
    if (const value* signal = result.as_object().if_contains("signal")) {
        throw Deviation("signal " + std::to_string(signal->to_number<int>()));
    }
    const value& code = result.at("exitcode");
    expect(code == exitCode, "exitcode " + std::to_string(code.to_number<int>()));
    return result;
}

/// A program of a scenario. Where the scenario stops on the way, it is ended and forgotten.
class StartedProgram {
 public:
    StartedProgram(FaultBench& bench, const object& arguments)
        : bench_(bench), pid_(bench.ask("guest-exec", arguments).at("pid")) {}
    StartedProgram(const StartedProgram&) = delete;
    StartedProgram& operator=(const StartedProgram&) = delete;
    ~StartedProgram() {
        if (hasEnded_) {
            return;
        }
        try {
            bench_.shell().run("kill -9 " + std::to_string(pid_.to_number<pid_t>()));
            endOf(bench_, pid_);
        } catch (const std::exception&) {
            // What is left behind is noticed.
        }
    }

    value end(int exitCode = 0) {
        hasEnded_ = true;
        return endOf(bench_, pid_, exitCode);
    }

 private:
    FaultBench& bench_;
    value pid_;
    bool hasEnded_ = false;
};

/// An open file of a scenario.
class OpenFile {
 public:
    OpenFile(FaultBench& bench, const object& arguments)
        : bench_(bench), handle_(bench.ask("guest-file-open", arguments)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() {
        if (isClosed_) {
            return;
        }
        try {
            close();
        } catch (const std::exception&) {
            // What is left open is noticed.
        }
    }

    value ask(std::string_view command, object arguments = {}) {
        arguments["handle"] = handle_;
        return bench_.ask(command, arguments);
    }
    void close() {
        isClosed_ = true;
        ask("guest-file-close");
    }

 private:
    FaultBench& bench_;
    value handle_;
    bool isClosed_ = false;
};

/// The peer's side of a scenario: a connection that ends early is an outcome.
template <typename Act>
auto withPeer(FaultBench& bench, Act act) {
    try {
        return act(bench.peer());
    } catch (const EndOfStream&) {
        throw Deviation(std::string(vsockEnded));
    }
}

void start(FaultBench& bench) {
    bench.ask("guest-ping");
}

void startOnVsock(FaultBench& bench) {
    bench.meetAgent();
    bench.ask("guest-ping");
}

void ping(FaultBench& bench) {
    bench.ask("guest-ping");
}

void reconnect(FaultBench& bench) {
    bench.replaceHost();
}

/// A host that is long in coming: what the agent does meanwhile.
void absence(FaultBench& bench) {
    bench.disconnect();
    bench.awaitWaitForHost();
    bench.meetAgent();
}

void execWithoutStreams(FaultBench& bench) {
    StartedProgram(bench, {{"path", "true"}}).end();
}

void execWithCapture(FaultBench& bench) {
    object arguments = shell("cat; echo error >&2; exit 3");
    arguments["capture-output"] = true;
    arguments["input-data"] = encodeBase64("input");
    const value result = StartedProgram(bench, arguments).end(3);
    expect(textOf(result, "out-data") == "input",
           "out-data \"" + textOf(result, "out-data") + "\"");
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
    withPeer(bench, [](VsockPeer& peer) {
        peer.awaitConnection();
        peer.await("30 100\r\n", faultPatience);
        peer.send("line\n");
        peer.await("line\r\nline\r\n", faultPatience);
        peer.send("\x04");
        peer.receiveAll(faultPatience);
    });
    program.end();
}

void file(FaultBench& bench) {
    OpenFile opened(bench, {{"path", "/run/fault.file"}, {"mode", "w+"}});
    opened.ask("guest-file-write", {{"buf-b64", encodeBase64("content")}});
    opened.ask("guest-file-flush");
    opened.ask("guest-file-seek", {{"offset", 0}, {"whence", "set"}});
    const value read = opened.ask("guest-file-read");
    opened.close();
    expect(textOf(read, "buf-b64") == "content", "read \"" + textOf(read, "buf-b64") + "\"");
}

void transferToHost(FaultBench& bench) {
    bench.shell().check("echo content > /run/fault.file");
    OpenFile opened(bench, {{"path", "/run/fault.file"}});
    const unsigned port = bench.peer().listen();
    const value result = opened.ask("mirel-guest-file-vsock-read", {{"cid", 2}, {"port", port}});
    opened.close();
    expect(result.at("count") == 8, "count " + std::to_string(result.at("count").as_int64()));
    bench.peer().awaitConnection();
    const std::string bytes = bench.peer().receiveAll(faultPatience);
    expect(bytes == "content\n", "sent \"" + bytes + "\"");
}

void transferFromHost(FaultBench& bench) {
    // Another one each time: a sender of before may still wait for an agent that has not come.
    static int port = 60000;
    ++port;
    OpenFile opened(bench, {{"path", "/run/fault.file"}, {"mode", "w"}});
    bench.shell().check("echo content > /run/fault.source; vsock-host send " +
                        std::to_string(port) + " /run/fault.source");
    const value result = opened.ask("mirel-guest-file-vsock-write", {{"cid", 2}, {"port", port}});
    opened.close();
    expect(result.at("count") == 8, "count " + std::to_string(result.at("count").as_int64()));
    const std::string bytes = bench.shell().check("cat /run/fault.file");
    expect(bytes == "content", "stored \"" + bytes + "\"");
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
    {"reconnect", reconnect, false, [](FaultBench& bench) { bench.disconnect(); }},
    {"absence", absence},
    {"info", info},
    {"exec", execWithoutStreams},
    {"exec capture", execWithCapture},
    {"exec paths", execWithPaths},
    {"exec vsock", execOnVsock},
    {"exec terminal", execOnTerminal},
    {"file", file},
    {"transfer to host", transferToHost},
    {"transfer from host", transferFromHost},
    {"interfaces", interfaces},
    {"clock", clock},
    {.name = "vsock start-up",
     .run = startOnVsock,
     .startsAgent = true,
     .channel = Channel::vsockOfArgument},
    {.name = "vsock ping", .run = ping, .channel = Channel::vsockOfArgument},
    {.name = "vsock reconnect", .run = reconnect, .channel = Channel::vsockOfArgument},
    {.name = "vsock node",
     .run = startOnVsock,
     .startsAgent = true,
     .channel = Channel::vsockOfNode},
};

}  // namespace

std::span<const Scenario> scenarios() {
    return list;
}

}  // namespace corvane::vm
