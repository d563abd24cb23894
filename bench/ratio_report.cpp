#include "bench/ratio_report.h"

#include <algorithm>
#include <cstdio>

namespace corvane {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
            times_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

std::vector<double> RatioReporter::ratios(const Ratio& ratio) const {
    const auto numerator = times_.find(ratio.numerator);
    const auto denominator = times_.find(ratio.denominator);
    std::vector<double> values;
    if (numerator != times_.end() && denominator != times_.end()) {
        const std::size_t count = std::min(numerator->second.size(), denominator->second.size());
        for (std::size_t i = 0; i < count; ++i) {
            values.push_back(numerator->second[i] / denominator->second[i]);
        }
    }
    std::sort(values.begin(), values.end());
    return values;
}

double printRatio(const Ratio& ratio, const std::vector<double>& values) {
    const bool atMost = ratio.target == Ratio::Target::atMost;
    const double median = values[values.size() / 2];
    std::printf("%-50s %7.2f  (%.2f to %.2f, runs: %zu)", ratio.what.c_str(), median,
                values.front(), values.back(), values.size());
    if (ratio.limit == 0) {
        std::printf("  no target\n");
        return 0;
    }
    const double missed = atMost ? median / ratio.limit : ratio.limit / median;
    std::printf("  %s %.4g: %s\n", atMost ? "at most" : "at least", ratio.limit,
                missed <= 1 ? "met" : "MISSED");
    return missed;
}

}  // namespace corvane
