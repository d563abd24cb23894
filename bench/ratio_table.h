#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace corvane {

/// What is measured in relation to a limit or reference of the same run, and how it should be. A
/// ratio of times is the measured one over the limit's with `atMost`, and the other way round,
/// which makes it one of speeds, with `atLeast`.
struct Ratio {
    enum class Target { atMost, atLeast };

    std::string what;
    std::string numerator;    ///< name of a benchmark
    std::string denominator;  ///< name of a benchmark
    Target target;
    double limit;  ///< 0 for a ratio that is only shown
};

/// The ratios of a run: a line of standard output for each, and a row of a file for a table.
class RatioTable {
 public:
    /// The file is made anew; there is none with an empty `path`. Throws when it cannot be written.
    explicit RatioTable(const std::string& path);

    /// Adds a ratio with the values of its runs, of which there is one at least, in ascending
    /// order. `measured` and `limit` are the two quantities themselves, as a person reads them.
    void add(const Ratio& ratio, const std::vector<double>& values, const std::string& measured,
             const std::string& limit);

    /// How far the median of the worst one is from its target: up to 1 meets it, 2 misses it by as
    /// much again. 0 without targets.
    [[nodiscard]] double worst() const noexcept { return worst_; }

 private:
    std::ofstream file_;
    double worst_ = 0;
};

/// "12.3 us": three digits that count, in the unit that suits.
std::string shownTime(double seconds);
/// "1.23 GB/s".
std::string shownSpeed(double bytesPerSecond);
/// "16.0 MiB".
std::string shownMebibytes(double mebibytes);

/// The middle of values in ascending order, of which there is one at least.
double medianOf(const std::vector<double>& values);

}  // namespace corvane
