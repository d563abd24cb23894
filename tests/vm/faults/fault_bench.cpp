#include "tests/vm/faults/fault_bench.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/vm/guest_fixture.h"

namespace corvane::vm {

namespace {

constexpr unsigned channelPort = 1024;

}  // namespace

std::unique_ptr<VirtualMachine> bootFor(Channel channel) {
    MachineOptions options{.vsockLoopback = true, .startAgent = false};
    const std::string port = std::to_string(channelPort);
    if (channel == Channel::vsockOfArgument) {
        options.kernelWords = {"mirel-guest-agent-port=" + port};
    } else if (channel == Channel::vsockOfNode) {
        options.firmwareEntries = {"name=opt/mirel/options/mirel-guest-agent-port,string=" + port};
    }
    return bootGuest(options);
}

FaultBench::FaultBench(VirtualMachine& machine, Channel channel)
    : machine_(machine), tracer_(machine.shell()) {
    if (channel != Channel::serial) {
        vsockHost_ = std::make_unique<VsockPeer>(machine);
    }
    restart();
}

VsockPeer& FaultBench::peer() {
    if (!peer_) {
        peer_ = std::make_unique<VsockPeer>(machine_);
    }
    return *peer_;
}

void FaultBench::closePeer() {
    if (peer_) {
        peer_->close();
    }
}

boost::json::value FaultBench::ask(std::string_view command, const Arguments& arguments) {
    const std::size_t start = machine_.log().end();
    std::string requests = boost::json::serialize(boost::json::object{{"execute", command},
                                                                      {"arguments", arguments}}) +
                           '\n';
    const bool looksForLoss = expected_ == noAnswer || expected_ == cutAnswer;
    if (looksForLoss) {
        // In one piece with another, whose answer tells that there is none before it.
        requests += R"({"execute":"guest-sync","arguments":{"id":1}})"
                    "\n";
    }
    send(requests);
    if (expected_ == serialDevice) {
        findAtSerialDevice();
    }
    if (expected_ == connectionEnded) {
        machine_.log().await(connectionEnded, start, faultPatience);
        host_->synchronise(faultPatience);
        throw Deviation(std::string(connectionEnded));
    }
    const std::string line = receiveLine();
    if (looksForLoss && line.ends_with(R"({"return":1})")) {
        throw Deviation(std::string(line.starts_with(R"({"return":1})") ? noAnswer : cutAnswer));
    }
    if (looksForLoss) {
        receiveLine();
    }
    boost::json::value answer = boost::json::parse(line);
    if (const boost::json::value* error = answer.as_object().if_contains("error")) {
        throw Deviation(error->at("desc").as_string().c_str());
    }
    return std::move(answer.as_object().at("return"));
}

void FaultBench::startAgent(const InjectedFault* fault) {
    if (vsockHost_) {
        // Not for the agent of before, which would come back.
        tracer_.endAgent();
        vsockHost_->listen(channelPort);
    }
    tracer_.restart(fault);
}

void FaultBench::meetAgent() {
    if (expected_ == serialDevice) {
        findAtSerialDevice();
    }
    host_.reset();
    if (vsockHost_) {
        vsockHost_->awaitConnection();
    } else {
        connectSerially();
    }
}

void FaultBench::restart() {
    expect("done");
    startAgent();
    meetAgent();
}

void FaultBench::replaceHost() {
    const std::size_t start = machine_.log().end();
    if (vsockHost_) {
        vsockHost_->listen(channelPort);
    }
    disconnect();
    machine_.log().await(connectionEnded, start, faultPatience);
    meetAgent();
}

void FaultBench::disconnect() {
    if (host_) {
        host_->disconnect();
    }
}

// epoll_wait(2) and its fourth argument; see proc(5), /proc/PID/syscall, and <asm/unistd_64.h>.
void FaultBench::awaitWaitForHost() {
    shell().check(
        "while ! grep -qE '^232 [^ ]+ [^ ]+ [^ ]+ 0xf{8,} '"
        " /proc/$(fault-tracer state | sed -n 's/^agent //p')/syscall; do usleep 1000; done");
}

void FaultBench::connectSerially() {
    host_.reset();
    host_ = std::make_unique<HostClient>(machine_.connectHost());
    host_->synchronise(faultPatience);
}

void FaultBench::findAtSerialDevice() {
    connectSerially();
    throw Deviation(std::string(serialDevice));
}

void FaultBench::send(std::string_view bytes) {
    if (host_) {
        host_->send(bytes);
    } else {
        vsockHost_->send(bytes);
    }
}

std::string FaultBench::receiveLine() {
    if (host_) {
        return host_->receiveLine(faultPatience);
    }
    try {
        std::string line = vsockHost_->await("\n", faultPatience);
        line.pop_back();
        return line;
    } catch (const EndOfStream&) {
        throw Deviation(std::string(vsockEnded));
    }
}

void FaultBench::awaitEndOf(pid_t process) {
    shell().check("while [ -e /proc/" + std::to_string(process) + " ]; do usleep 1000; done");
}

}  // namespace corvane::vm
