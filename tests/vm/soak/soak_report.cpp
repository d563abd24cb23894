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

Footprint footprintOf(SoakTarget& target) {
    // The agent gives back what it does not need a moment after the last request.
    target.shell("sleep 1");
    return {target.shell("ls -l /proc/$agent/fd | sed -n 's/\\[.*//; s/.* -> //p' | sort"),
            target.processes(),
            target.zombies(),
            target.shell("ls " + target.captureDirectory() + " 2>/dev/null | wc -l"),
            target.shell("echo $agent"),
            std::stol(target.shell("awk '/^Private_(Clean|Dirty)/ { sum += $2 } END { print sum }' "
                                   "/proc/$agent/smaps_rollup"))};
}

std::string compare(const Footprint& before, const Footprint& after, const std::string& what) {
    const long growth = after.privateKibibytes - before.privateKibibytes;
    std::cout << "private memory: " << before.privateKibibytes << " KiB, after " << what << ' '
              << growth << " KiB more\n";
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

std::string soak(SoakTarget& target, SoakLoad& load, std::chrono::seconds warmUp,
                 std::chrono::seconds span) {
    load.askAfterEveryProcess();
    load.run(warmUp);
    const Footprint before = footprintOf(target);
    load.run(span);
    const Footprint after = footprintOf(target);
    std::cout << load.figures();
    return compare(before, after, std::to_string(span.count()) + " s");
}

}  // namespace corvane::vm
