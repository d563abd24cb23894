#include "bench/ratio_report.h"

#include <algorithm>

namespace corvane {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration) {
            continue;
        }
        if (run.error_occurred) {
            failures_[run.run_name.function_name] = run.error_message;
            continue;
        }
        Times& times = times_[run.run_name.function_name];
        const auto speed = run.counters.find("bytes_per_second");
        times.ofByte = speed != run.counters.end();
        times.seconds.push_back(times.ofByte ? 1 / speed->second.value
                                             : run.real_accumulated_time /
                                                   static_cast<double>(run.iterations));
    }
    ConsoleReporter::ReportRuns(runs);
}

void RatioReporter::addTo(RatioTable& table, const Ratio& ratio) const {
    const auto numerator = times_.find(ratio.numerator);
    const auto denominator = times_.find(ratio.denominator);
    if (numerator == times_.end() || denominator == times_.end()) {
        return;
    }
    const auto& above = numerator->second;
    const auto& below = denominator->second;
    std::vector<double> values;
    for (std::size_t i = 0; i < std::min(above.seconds.size(), below.seconds.size()); ++i) {
        values.push_back(above.seconds[i] / below.seconds[i]);
    }
    std::sort(values.begin(), values.end());
    const bool atMost = ratio.target == Ratio::Target::atMost;
    table.add(ratio, values, shown(atMost ? above : below), shown(atMost ? below : above));
}

std::string RatioReporter::shown(const Times& times) {
    std::vector<double> ordered = times.seconds;
    std::sort(ordered.begin(), ordered.end());
    return times.ofByte ? shownSpeed(1 / medianOf(ordered)) : shownTime(medianOf(ordered));
}

}  // namespace corvane
