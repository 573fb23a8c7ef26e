// What every benchmark here reports: medians of repeated runs, in ms.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

// The median of `values`; -1 when there are none.
inline double Median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

inline double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace bench
