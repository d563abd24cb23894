#include "tests/vm/faults/fault_bench.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace corvane::vm {

FaultBench::FaultBench(VirtualMachine& machine) : machine_(machine), tracer_(machine.shell()) {
    tracer_.restart();
    host_ = std::make_unique<HostClient>(machine_.connectHost());
    host_->synchronise();
}

VsockPeer& FaultBench::peer() {
    if (!peer_) {
        peer_ = std::make_unique<VsockPeer>(machine_);
    }
    return *peer_;
}

boost::json::value FaultBench::ask(std::string_view command, const Arguments& arguments) {
    const std::size_t start = machine_.log().end();
    send(command, arguments);
    if (connectionEnds_) {
        machine_.log().await(connectionEnded, start);
        host_->synchronise();
        throw Deviation(std::string(connectionEnded));
    }
    return receive();
}

void FaultBench::send(std::string_view command, const Arguments& arguments) {
    // In one piece with a request that follows it: its answer tells that there is none before it.
    host_->send(boost::json::serialize(
                    boost::json::object{{"execute", command}, {"arguments", arguments}}) +
                "\n" R"({"execute":"guest-sync","arguments":{"id":)" + std::to_string(++lastId_) +
                "}}\n");
}

boost::json::value FaultBench::receive() {
    const std::string sync = R"({"return":)" + std::to_string(lastId_) + "}";
    const std::string line = host_->receiveLine();
    if (line == sync) {
        throw Deviation(std::string(noAnswer));
    }
    const std::string next = host_->receiveLine();
    if (next != sync) {
        throw Deviation("out of step: " + line + " and then " + next);
    }
    boost::json::value answer = boost::json::parse(line);
    if (const boost::json::value* error = answer.as_object().if_contains("error")) {
        throw Deviation(error->at("desc").as_string().c_str());
    }
    return std::move(answer.as_object().at("return"));
}

void FaultBench::replaceHost() {
    const std::size_t start = machine_.log().end();
    host_->disconnect();
    machine_.log().await(connectionEnded, start);
    host_ = std::make_unique<HostClient>(machine_.connectHost());
    host_->synchronise();
}

void FaultBench::awaitEndOf(pid_t process) {
    shell().check("while [ -e /proc/" + std::to_string(process) + " ]; do usleep 1000; done");
}

}  // namespace corvane::vm
