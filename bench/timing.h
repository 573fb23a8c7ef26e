// What every benchmark here reports: medians of repeated runs, in ms.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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

// The count a benchmark takes as its one optional argument (`fallback`
// without one); -1 after printing "usage: <program> [<what>]" on bad usage.
inline int CountArgument(int argc, char** argv, int fallback, const char* program,
                         const char* what) {
  const int count = argc > 1 ? atoi(argv[1]) : fallback;
  if (argc <= 2 && count >= 1) return count;
  fprintf(stderr, "usage: %s [%s]\n", program, what);
  return -1;
}

}  // namespace bench
