#pragma once

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/ratio_table.h"

namespace corvane {

/// Prints each benchmark as usual and remembers the times of all repetitions: those of a run or,
/// where a benchmark counts bytes, those of a byte, so that amounts need not be the same.
class RatioReporter final : public benchmark::ConsoleReporter {
 public:
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Adds the ratio to the table, of each pair of repetitions; not when one of the two did not
    /// run.
    void addTo(RatioTable& table, const Ratio& ratio) const;

    /// The benchmarks that could not run, each with its reason.
    [[nodiscard]] const std::map<std::string, std::string>& failures() const noexcept {
        return failures_;
    }

 private:
    struct Times {
        std::vector<double> seconds;
        bool ofByte = false;
    };
    static std::string shown(const Times& times);

    std::map<std::string, Times> times_;
    std::map<std::string, std::string> failures_;
};

}  // namespace corvane
