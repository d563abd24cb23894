// Shows, as a host sees it, what the agent answers. corvane_vm_demo [--keep] IMAGE-DIRECTORY
#include <chrono>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/vm/support/base64.h"
#include "tests/vm/support/checksum.h"
#include "tests/vm/support/virtual_machine.h"
#include "tests/vm/support/vsock_peer.h"
#include "tests/vm/support/wire_terminal.h"

namespace {

using boost::json::object;
using corvane::vm::HostClient;
using corvane::vm::VirtualMachine;
using corvane::vm::VsockPeer;

/// The marker byte is no text: it is shown by its number. Of a file's bytes the first are enough.
std::string readable(std::string line) {
    constexpr std::size_t shown = 24;
    const std::string key = "\"buf-b64\":\"";
    if (const std::size_t start = line.find(key); start != std::string::npos) {
        const std::size_t bytes = start + key.size();
        const std::size_t length = line.find('"', bytes) - bytes;
        if (length > shown) {
            line.replace(bytes + shown, length - shown, "...");
        }
    }
    return line.starts_with('\xFF') ? "<FF>" + line.substr(1) : line;
}

std::string show(HostClient& host, const std::string& what, const std::string& request) {
    std::cout << "\n" << what << "\n";
    std::cout << "  host   " << readable(request) << "\n";
    std::string answer = host.request(request);
    std::cout << "  agent  " << readable(answer) << std::endl;
    return answer;
}

/// What is no message, but shown along with them.
void showLines(const std::string& who, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::cout << "  " << std::left << std::setw(6) << who << ' ' << line << std::endl;
    }
}

std::string requestOf(const char* command, const object& arguments) {
    return boost::json::serialize(object{{"execute", command}, {"arguments", arguments}});
}

std::int64_t pidIn(const std::string& answer) {
    return boost::json::parse(answer).at("return").at("pid").to_number<std::int64_t>();
}

/// Asks until the program has ended; shows the last answer alone.
void showEnd(HostClient& host, std::int64_t pid) {
    const std::string request = requestOf("guest-exec-status", {{"pid", pid}});
    const auto end = std::chrono::steady_clock::now() + corvane::vm::hangLimit;
    std::string answer;
    object state;
    do {
        if (std::chrono::steady_clock::now() > end) {
            throw corvane::vm::HangError("the program does not end");
        }
        answer = host.request(request);
        state = boost::json::parse(answer).at("return").as_object();
    } while (!state.at("exited").as_bool());
    std::cout << "  host   " << request << "\n  agent  " << answer << std::endl;
    if (const auto* output = state.if_contains("out-data")) {
        showLines("output", corvane::vm::decodeBase64(output->as_string()));
    }
}

void run(HostClient& host, const std::string& what, const object& program) {
    showEnd(host, pidIn(show(host, what, requestOf("guest-exec", program))));
}

/// Types a line at the shell's terminal and shows it with the line that holds the answer.
void type(VsockPeer& terminal, const std::string& line, const std::string& answer) {
    terminal.send(line + "\r");
    const std::string shown = terminal.await(answer + "\r\n");
    const std::size_t end = shown.size() - std::strlen("\r\n");
    const std::size_t start = shown.rfind('\n', end - 1) + 1;
    showLines("shell", "guest> " + line + '\n' + shown.substr(start, end - start));
    terminal.await("guest> ");
}

/// A shell on a terminal whose other end is a vsock connection; the host changes its size.
void resize(HostClient& host, VsockPeer& terminal) {
    const object program{
        {"path", "/bin/sh"},
        {"arg", {"-i"}},
        {"env", {"PATH=/bin:/usr/bin", "TERM=dumb", "PS1=guest> "}},
        {"mirel-vsock-stdio", "vsock://2:" + std::to_string(terminal.listen())},
        {"mirel-termios", corvane::vm::cookedTerminal.record()},
        {"mirel-window-size", {{"rows", 24}, {"columns", 80}}},
    };
    const std::int64_t pid = pidIn(show(
        host, "A shell on a terminal of 24 lines, over vsock:", requestOf("guest-exec", program)));
    terminal.awaitConnection();
    terminal.await("guest> ");
    type(terminal, "stty size", "24 80");
    show(host, "The host's window grows:",
         requestOf("mirel-guest-signal-pid",
                   {{"pid", pid},
                    {"signal", 28},
                    {"mirel-window-size", {{"rows", 50}, {"columns", 132}}}}));
    type(terminal, "stty size", "50 132");
    show(host, "Hang up:", requestOf("mirel-guest-signal-pid", {{"pid", pid}, {"signal", 1}}));
    terminal.receiveAll();
    showEnd(host, pid);
}

void showChecksum(const std::string& bytes) {
    showLines("host", corvane::vm::sha256(bytes) + "  " + std::to_string(bytes.size()) + " bytes");
}

std::uint64_t openFile(HostClient& host, const std::string& what, const object& arguments) {
    const std::string answer = show(host, what, requestOf("guest-file-open", arguments));
    return boost::json::parse(answer).at("return").to_number<std::uint64_t>();
}

void closeFile(HostClient& host, std::uint64_t handle) {
    show(host, "Close it:", requestOf("guest-file-close", {{"handle", handle}}));
}

constexpr std::size_t pieceSize = 2048;
constexpr char guestPath[] = "/tmp/from-the-host";

void pushFile(HostClient& host, const std::string& bytes) {
    const auto handle =
        openFile(host, "Make a file in the guest:", {{"path", guestPath}, {"mode", "w"}});
    for (std::size_t start = 0; start < bytes.size(); start += pieceSize) {
        const std::string piece = corvane::vm::encodeBase64(bytes.substr(start, pieceSize));
        show(host, "Write a piece of it:",
             requestOf("guest-file-write", {{"handle", handle}, {"buf-b64", piece}}));
    }
    closeFile(host, handle);
    run(host, "Is it the same there?",
        {{"path", "/bin/sha256sum"}, {"arg", {guestPath}}, {"capture-output", true}});
    showChecksum(bytes);
}

std::string pullFile(HostClient& host) {
    const auto handle = openFile(host, "Read it again:", {{"path", guestPath}});
    std::string bytes;
    for (bool end = false; !end;) {
        const std::string answer = show(
            host,
            "A piece:", requestOf("guest-file-read", {{"handle", handle}, {"count", pieceSize}}));
        const auto result = boost::json::parse(answer).at("return");
        bytes += corvane::vm::decodeBase64(result.at("buf-b64").as_string());
        end = result.at("eof").as_bool();
    }
    showChecksum(bytes);
    closeFile(host, handle);
    return bytes;
}

/// The agent answers when the transfer is over: what comes must be taken first.
std::string streamFile(HostClient& host, VsockPeer& receiver) {
    const auto handle = openFile(host, "Once more, over vsock:", {{"path", guestPath}});
    const std::string request =
        requestOf("mirel-guest-file-vsock-read",
                  {{"handle", handle}, {"cid", 2}, {"port", receiver.listen()}});
    std::cout << "\nAll of it at once:\n  host   " << request << std::endl;
    host.send(request + '\n');
    receiver.awaitConnection();
    std::string bytes = receiver.receiveAll();
    showChecksum(bytes);
    std::cout << "  agent  " << host.receiveLine() << std::endl;
    closeFile(host, handle);
    return bytes;
}

void transferFiles(HostClient& host, VsockPeer& receiver) {
    std::string bytes;
    for (int number = 1; number <= 120; ++number) {
        bytes += "line " + std::to_string(number) + " of a file that the host has made\n";
    }
    pushFile(host, bytes);
    if (pullFile(host) != bytes || streamFile(host, receiver) != bytes) {
        throw std::runtime_error("the file has changed on its way");
    }
}

std::int64_t timeIn(const std::string& answer) {
    return boost::json::parse(answer).at("return").at("time").to_number<std::int64_t>();
}

void showSystem(HostClient& host) {
    const std::string timeRequest = R"({"execute":"guest-get-time"})";
    constexpr std::int64_t hour = 3'600'000'000'000;  // in nanoseconds
    show(host, "Its network interfaces:", R"({"execute":"guest-network-get-interfaces"})");
    const std::int64_t time = timeIn(show(host, "What time is it there?", timeRequest));
    show(host,
         "Put the clock on by an hour:", requestOf("guest-set-time", {{"time", time + hour}}));
    if (timeIn(show(host, "And now?", timeRequest)) < time + hour) {
        throw std::runtime_error("the clock has not been set");
    }
}

void converse(VirtualMachine& machine) {
    VsockPeer vsock(machine);
    HostClient host = machine.connectHost();
    host.synchronise();
    show(host, "Find the agent, whatever was on the line before:",
         "\xFF{\"execute\":\"guest-sync-delimited\",\"arguments\":{\"id\":2026}}");
    show(host, "The same without the marker:", R"({"execute":"guest-sync","arguments":{"id":7}})");
    show(host, "Is it alive?", R"({"execute":"guest-ping"})");
    show(host, "What can it do?", R"({"execute":"guest-info"})");
    show(host, "A command that it does not know:", R"({"execute":"guest-dance"})");
    run(host, "Run a program and collect its output:",
        {{"path", "/bin/uname"}, {"arg", {"-a"}}, {"capture-output", true}});
    run(host, "Give it input, too:",
        {{"path", "/bin/sort"},
         {"input-data", corvane::vm::encodeBase64("pear\napple\nfig\n")},
         {"capture-output", true}});
    run(host, "A program that fails:", {{"path", "/bin/sh"}, {"arg", {"-c", "exit 3"}}});
    resize(host, vsock);
    transferFiles(host, vsock);
    showSystem(host);
}

/// A guest that goes down gives no answer.
void shutDown(VirtualMachine& machine) {
    const std::string request = R"({"execute":"guest-shutdown"})";
    HostClient host = machine.connectHost();
    host.synchronise();
    std::cout << "\nSwitch it off:\n  host   " << request << std::endl;
    host.send(request + '\n');
    machine.awaitEnd();
    std::cout << "\nThe guest is powered off." << std::endl;
}

void explainKeeping(const VirtualMachine& machine) {
    const std::string directory = machine.directory();
    const std::string path = machine.channelPath();
    std::cout << "\nThe guest goes on running.\n"
              << "  channel      " << path << "\n"
              << "  console log  " << directory << "/console.log\n"
              << "  QEMU         process " << machine.processId() << "\n"
              << "  talk to it   socat - UNIX-CONNECT:" << path << "\n"
              << "               then type {\"execute\":\"guest-ping\"} and Enter\n"
              << "  stop it      kill " << machine.processId() << "; rm -r " << directory
              << std::endl;
}

}  // namespace

int main(int count, char** words) {
    const bool keep = count > 1 && std::strcmp(words[1], "--keep") == 0;
    if (count != (keep ? 3 : 2)) {
        std::cerr << "usage: corvane_vm_demo [--keep] IMAGE-DIRECTORY\n";
        return 2;
    }
    try {
        std::cout << "Starting a guest (about ten seconds) ..." << std::endl;
        VirtualMachine machine(words[count - 1], {.vsockLoopback = true, .endWithParent = !keep});
        converse(machine);
        if (keep) {
            explainKeeping(machine);
            machine.leaveRunning();
        } else {
            shutDown(machine);
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "corvane_vm_demo: " << error.what() << "\n";
        return 1;
    }
}
