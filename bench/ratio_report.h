#pragma once

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace corvane {

/// A time in relation to another of the same run, and how it should be.
struct Ratio {
    enum class Target { atMost, atLeast };

    std::string what;
    std::string numerator;    ///< name of a benchmark
    std::string denominator;  ///< name of a benchmark
    Target target;
    double limit;  ///< 0 for a ratio that is only shown
};

/// Prints each benchmark as usual and remembers the times of all repetitions.
class RatioReporter final : public benchmark::ConsoleReporter {
 public:
    void ReportRuns(const std::vector<Run>& runs) override;

    /// The ratio of each pair of repetitions, in ascending order. Empty when one did not run.
    [[nodiscard]] std::vector<double> ratios(const Ratio& ratio) const;

 private:
    std::map<std::string, std::vector<double>> times_;
};

/// Prints a line for the ratio, with the spread of `values`. Returns how far the median is from the
/// target: up to 1 meets it, 2 misses it by as much again, 0 is without a target.
double printRatio(const Ratio& ratio, const std::vector<double>& values);

}  // namespace corvane
