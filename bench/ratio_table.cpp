// The file has a line for each ratio with these fields, separated by tabs: what it is, measured,
// limit, ratio, least, most, runs, target, verdict.

#include "bench/ratio_table.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace corvane {

namespace {

[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
    std::array<char, 200> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return text.data();
}

struct Unit {
    double size;
    const char* name;
};

/// In the largest of `units`, which are in descending order, that is not larger than the value.
template <std::size_t count>
std::string inUnits(double value, const std::array<Unit, count>& units) {
    const auto* unit = std::find_if(units.begin(), units.end() - 1,
                                    [&](const Unit& each) { return value >= each.size; });
    const double shown = value / unit->size;
    const int decimals = shown < 10 ? 2 : shown < 100 ? 1 : 0;
    return formatted("%.*f %s", decimals, shown, unit->name);
}

}  // namespace

RatioTable::RatioTable(const std::string& path) {
    if (!path.empty()) {
        file_.open(path);
        if (!file_) {
            throw std::runtime_error("cannot write " + path);
        }
    }
}

void RatioTable::add(const Ratio& ratio, const std::vector<double>& values,
                     const std::string& measured, const std::string& limit) {
    const bool atMost = ratio.target == Ratio::Target::atMost;
    const double median = medianOf(values);
    std::string target = "none";
    std::string verdict = "-";
    if (ratio.limit != 0) {
        const double missed = atMost ? median / ratio.limit : ratio.limit / median;
        worst_ = std::max(worst_, missed);
        target = formatted("%s %.4g", atMost ? "at most" : "at least", ratio.limit);
        verdict = missed <= 1 ? "met" : "MISSED";
    }
    std::cout << formatted("%-54s %8.3g  (%.3g to %.3g, runs: %zu)  target: %s: %s",
                           ratio.what.c_str(), median, values.front(), values.back(), values.size(),
                           target.c_str(), verdict.c_str())
              << std::endl;
    if (file_.is_open()) {
        file_ << ratio.what << '\t' << measured << '\t' << limit
              << formatted("\t%.3g\t%.3g\t%.3g\t%zu\t", median, values.front(), values.back(),
                           values.size())
              << target << '\t' << verdict << std::endl;
    }
}

std::string shownTime(double seconds) {
    constexpr std::array<Unit, 4> units = {{{1, "s"}, {1e-3, "ms"}, {1e-6, "us"}, {1e-9, "ns"}}};
    return inUnits(seconds, units);
}

std::string shownSpeed(double bytesPerSecond) {
    constexpr std::array<Unit, 3> units = {{{1e9, "GB/s"}, {1e6, "MB/s"}, {1e3, "kB/s"}}};
    return inUnits(bytesPerSecond, units);
}

std::string shownMebibytes(double mebibytes) {
    return formatted("%.2f MiB", mebibytes);
}

double medianOf(const std::vector<double>& values) {
    return values[values.size() / 2];
}

}  // namespace corvane
