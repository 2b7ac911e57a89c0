#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Kestrel::Bench {

// Timing and the one row format scripts/bench.sh gathers into its table.
class Measure {
public:
    static double milliseconds(const std::function<void()>& body);
    static double median(std::vector<double> samples);
    // Median of `rounds` timed calls of the body.
    static double medianMilliseconds(int rounds, const std::function<void()>& body);
    // Each of `rounds` timed calls of the body.
    static std::vector<double> samplesMilliseconds(int rounds, const std::function<void()>& body);
    // "ROW", the figure and its value, the anchor and its value, their ratio; tab-separated.
    static void report(const std::string& figure, double value, const std::string& anchor, double anchorValue,
                       const std::string& unit = "ms");
};

} // namespace Kestrel::Bench
