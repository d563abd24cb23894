#include "tests/vm/soak/soak_report.h"

#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

namespace corvane::vm {
namespace {

/// How much more memory of its own the agent may have than after warming up.
constexpr long mostGrowth = 1024;

void compare(std::ostream& faults, const char* what, const std::string& before,
             const std::string& after) {
    if (before != after) {
        faults << what << " before:\n" << before << "\nafter:\n" << after << '\n';
    }
}

}  // namespace

std::uint64_t soakSeed() {
    const char* chosen = std::getenv("CORVANE_SOAK_SEED");
    return chosen != nullptr ? std::strtoull(chosen, nullptr, 10) : std::random_device{}();
}

std::size_t soakNumber(const char* variable, std::size_t usual) {
    const char* chosen = std::getenv(variable);
    return chosen != nullptr ? std::strtoull(chosen, nullptr, 10) : usual;
}

std::string soak(SoakLoad& load, std::chrono::seconds warmUp, std::chrono::seconds span) {
    load.askAfterEveryProcess();
    load.run(warmUp);
    const Footprint before = load.footprint();
    load.run(span);
    const Footprint after = load.footprint();

    const long growth = after.privateKibibytes - before.privateKibibytes;
    std::cout << load.figures() << "private memory: " << before.privateKibibytes << " KiB, after "
              << span.count() << " s " << growth << " KiB more\n";
    std::ostringstream faults;
    compare(faults, "agent", before.agent, after.agent);
    compare(faults, "descriptors", before.descriptors, after.descriptors);
    compare(faults, "processes", before.processes, after.processes);
    compare(faults, "zombies", before.zombies, after.zombies);
    compare(faults, "capture files", before.captureFiles, after.captureFiles);
    if (growth > mostGrowth) {
        faults << "private memory has grown by " << growth << " KiB\n";
    }
    return faults.str();
}

}  // namespace corvane::vm
