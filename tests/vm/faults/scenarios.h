#pragma once

#include <functional>
#include <span>
#include <string>

#include "tests/vm/faults/fault_bench.h"

namespace corvane::vm {

/// Work of the agent in which each system call is made to fail. Running it throws Deviation when it
/// does not come out as it does without a fault.
struct Scenario {
    std::string name;
    std::function<void(FaultBench&)> run;
    bool startsAgent = false;  ///< run with an agent that is being started
    /// For faults that end the agent: what makes it do its work, without awaiting the outcome.
    std::function<void(FaultBench&)> provoke = [](FaultBench& /*bench*/) {};
    Channel channel = Channel::serial;
};

std::span<const Scenario> scenarios();

}  // namespace corvane::vm
