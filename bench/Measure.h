// Measuring and reporting for the engine benchmark.
#pragma once

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

/// The processor time of this thread, in seconds. Excludes other processes.
inline double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// The processor time of `step`, in seconds.
template <class Step>
double secondsOf(Step step) {
  const double start = cpuSeconds();
  step();
  return cpuSeconds() - start;
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// The resident memory of this process, in bytes; trimmed: after returning freed heap to the
/// system.
double residentBytes(bool isTrimmed = true);

/// Runs `measure` in a process of its own, with a fresh heap, and returns its result.
/// \throws std::runtime_error when the process fails.
std::vector<double> inProcess(const std::function<std::vector<double>()>& measure);

/// The named figures of one measurement, in the order of the output.
using Figures = std::vector<std::pair<std::string, double>>;

/// Prints the figures of `name` at `size`, and writes them as a line of JSON if a file is open.
void report(const std::string& name, double size, const Figures& figures);
/// Opens the file to which report() writes its JSON lines.
void reportTo(const std::string& path);

/// The exponent of a cost's growth with the size: the slope of a line fitted to the logarithms.
inline double exponentOf(const std::vector<std::pair<double, double>>& costBySize) {
  double x = 0, y = 0, xx = 0, xy = 0;
  for (const auto& [size, cost] : costBySize) {
    const double logSize = std::log(size), logCost = std::log(std::max(cost, 1e-12));
    x += logSize, y += logCost, xx += logSize * logSize, xy += logSize * logCost;
  }
  const auto n = static_cast<double>(costBySize.size());
  return (n * xy - x * y) / (n * xx - x * x);
}

}  // namespace Bench
