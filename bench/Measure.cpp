#include "bench/Measure.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace Kestrel::Bench {

double Measure::milliseconds(const std::function<void()>& body)
{
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double Measure::median(std::vector<double> samples)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const size_t middle = samples.size() / 2;
    return samples.size() % 2 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

double Measure::medianMilliseconds(int rounds, const std::function<void()>& body)
{
    return median(samplesMilliseconds(rounds, body));
}

std::vector<double> Measure::samplesMilliseconds(int rounds, const std::function<void()>& body)
{
    std::vector<double> samples;
    for (int round = 0; round < rounds; ++round)
        samples.push_back(milliseconds(body));
    return samples;
}

void Measure::report(const std::string& figure, double value, const std::string& anchor, double anchorValue,
                     const std::string& unit)
{
    const double ratio = anchorValue > 0 ? value / anchorValue : 0;
    std::printf("ROW\t%s\t%.3f %s\t%s\t%.3f %s\t%.2fx\n", figure.c_str(), value, unit.c_str(), anchor.c_str(),
                anchorValue, unit.c_str(), ratio);
    std::fflush(stdout);
}

} // namespace Kestrel::Bench
