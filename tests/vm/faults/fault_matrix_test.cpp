#include <iostream>
#include "tests/vm/faults/scenarios.h"
#include "tests/vm/guest_fixture.h"
namespace corvane::vm {
namespace {
TEST(Faults, Record) {
    auto guest = bootGuest({.vsockLoopback = true, .startAgent = false});
    FaultBench bench(*guest);
    const char* only = std::getenv("ONLY");
    for (const Scenario& scenario : scenarios()) {
        if (only && scenario.name != only) continue;
        for (int round = 0; round < 2; ++round) {
            auto t = std::chrono::steady_clock::now();
            if (scenario.startsAgent) bench.tracer().restart(); else bench.tracer().begin();
            try { scenario.run(bench); } catch (const std::exception& e) { std::cout << "!! " << e.what() << "\n"; }
            auto report = bench.tracer().report();
            std::chrono::duration<double> d = std::chrono::steady_clock::now() - t;
            std::cout << "== " << scenario.name << " " << d.count() << " s fds " << report.descriptors << " children " << report.children << "\n";
            if (round || scenario.startsAgent) for (auto& [c, n] : report.calls) std::cout << "   " << n << " " << c << "\n";
        }
    }
}
}
}
