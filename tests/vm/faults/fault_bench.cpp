#include "tests/vm/faults/fault_bench.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace corvane::vm {

FaultBench::FaultBench(VirtualMachine& machine) : machine_(machine), tracer_(machine.shell()) {
    tracer_.restart();
    connect();
    host_->synchronise();
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
    if (expected_ == noAnswer) {
        // In one piece with another, whose answer tells that there is none before it.
        requests += R"({"execute":"guest-sync","arguments":{"id":1}})"
                    "\n";
    }
    host_->send(requests);
    if (expected_ == connectionEnded) {
        machine_.log().await(connectionEnded, start, faultPatience);
        host_->synchronise(faultPatience);
        throw Deviation(std::string(connectionEnded));
    }
    const std::string line = host_->receiveLine(faultPatience);
    if (expected_ == noAnswer && line == R"({"return":1})") {
        throw Deviation(std::string(noAnswer));
    }
    if (expected_ == noAnswer) {
        host_->receiveLine(faultPatience);
    }
    boost::json::value answer = boost::json::parse(line);
    if (const boost::json::value* error = answer.as_object().if_contains("error")) {
        throw Deviation(error->at("desc").as_string().c_str());
    }
    return std::move(answer.as_object().at("return"));
}

void FaultBench::connect() {
    host_.reset();
    host_ = std::make_unique<HostClient>(machine_.connectHost());
}

void FaultBench::replaceHost() {
    const std::size_t start = machine_.log().end();
    disconnect();
    machine_.log().await(connectionEnded, start, faultPatience);
    connect();
    host_->synchronise(faultPatience);
}

void FaultBench::disconnect() {
    host_->disconnect();
}

void FaultBench::awaitEndOf(pid_t process) {
    shell().check("while [ -e /proc/" + std::to_string(process) + " ]; do usleep 1000; done");
}

}  // namespace corvane::vm
