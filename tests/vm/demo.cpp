// Shows, as a host sees it, what the agent answers. corvane_vm_demo [--keep] IMAGE-DIRECTORY
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "tests/vm/support/virtual_machine.h"

namespace {

using corvane::vm::HostClient;
using corvane::vm::VirtualMachine;

/// The marker byte is no text: it is shown by its number.
std::string readable(const std::string& line) {
    return line.starts_with('\xFF') ? "<FF>" + line.substr(1) : line;
}

void show(HostClient& host, const std::string& what, const std::string& request) {
    std::cout << "\n" << what << "\n";
    std::cout << "  host   " << readable(request) << "\n";
    std::cout << "  agent  " << readable(host.request(request)) << std::endl;
}

void converse(VirtualMachine& machine) {
    HostClient host = machine.connectHost();
    host.synchronise();
    show(host, "Find the agent, whatever was on the line before:",
         "\xFF{\"execute\":\"guest-sync-delimited\",\"arguments\":{\"id\":2026}}");
    show(host, "The same without the marker:", R"({"execute":"guest-sync","arguments":{"id":7}})");
    show(host, "Is it alive?", R"({"execute":"guest-ping"})");
    show(host, "What can it do?", R"({"execute":"guest-info"})");
    show(host, "A command that it does not know:", R"({"execute":"guest-dance"})");
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
        VirtualMachine machine(words[count - 1], {.endWithParent = !keep});
        converse(machine);
        if (keep) {
            explainKeeping(machine);
            machine.leaveRunning();
        } else {
            machine.powerOff();
            std::cout << "\nThe guest is powered off." << std::endl;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "corvane_vm_demo: " << error.what() << "\n";
        return 1;
    }
}
