#pragma once

#include <algorithm>
#include <cstdio>
#include <vector>

// Latency figures as the benchmarks print them.
namespace vesk::bench {

inline double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

// One line: p50, p99 and the maximum of `micros`, in microseconds.
inline void report(const char* what, const std::vector<double>& micros) {
  std::printf("%-46s p50 %7.1f us  p99 %7.1f us  max %8.1f us\n", what, percentile(micros, 0.5),
              percentile(micros, 0.99), *std::max_element(micros.begin(), micros.end()));
}

}  // namespace vesk::bench
