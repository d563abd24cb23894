#include "tests/vm/faults/fault_tracer.h"

#include <sstream>

namespace corvane::vm {
namespace {

std::string orderToBegin(const InjectedFault* fault) {
    std::string order = "fault-tracer begin";
    if (fault != nullptr) {
        order += " " + std::to_string(fault->error) + " " + std::to_string(fault->occurrence) +
                 " '" + fault->call + "'";
    }
    return order + " >/dev/null";
}

}  // namespace

FaultTracer::FaultTracer(GuestShell& shell) : shell_(shell) {
    shell_.check("fault-tracer serve");
}

void FaultTracer::endAgent() {
    shell_.check("fault-tracer kill >/dev/null");
}

void FaultTracer::restart(const InjectedFault* fault) {
    give("fault-tracer kill >/dev/null; " + orderToBegin(fault) + "; fault-tracer start");
}

void FaultTracer::begin(const InjectedFault* fault) {
    shell_.check(orderToBegin(fault));
}

TracerReport FaultTracer::report() {
    return give("fault-tracer report");
}

TracerReport FaultTracer::awaitEnd() {
    return give("fault-tracer await-end >/dev/null; fault-tracer report");
}

TracerReport FaultTracer::give(const std::string& orders) {
    std::istringstream answer(shell_.check(orders));
    TracerReport report;
    std::string word;
    answer >> word >> report.agent >> word >> report.exitStatus >> word >> report.faultHappened >>
        word >> report.descriptors >> word >> report.children;
    unsigned count = 0;
    while (answer >> count >> std::ws && std::getline(answer, word)) {
        report.calls[word] = count;
    }
    return report;
}

}  // namespace corvane::vm
